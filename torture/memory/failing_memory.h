// Memory that runs out at a chosen allocation: failing_memory.cpp puts itself before malloc and its
// kin for the whole process, so that operator new, Qt and the C library all feel it.
#ifndef TORTURE_FAILING_MEMORY_H
#define TORTURE_FAILING_MEMORY_H

#include <string>

namespace tarv::torture {

// From now on the allocation with the number `nth`, counted from 1, of this thread fails; with
// `lasting`, all later ones, too. 0: none fails, but they are counted.
void LetMemoryFail(long nth, bool lasting);
// All succeed again.
void MendMemory();

// What LetMemoryFail() has begun, with its counts, on its way to another thread.
struct Want {
  long nth = 0;
  bool lasting = false;
  long asked = 0;
  long failed = 0;
};
// Ends it on this thread.
Want TakeWant();
// Goes on with it on this thread.
void PutWant(const Want& want);

// What the torture itself takes in this scope never fails, and is not counted.
class OwnMemory {
 public:
  OwnMemory();
  ~OwnMemory();
  OwnMemory(const OwnMemory&) = delete;
  OwnMemory& operator=(const OwnMemory&) = delete;

 private:
  const bool before_;
};

// Allocations that this thread has asked for since the latest LetMemoryFail(), up to the mending.
long CountAllocations();
// How many of them failed.
long CountFailures();
// Blocks that the process has and has not given back.
long CountBlocks();

// Makes what is looked up once be looked up now, before memory fails. From now on the process tells
// on its standard error, a line each, who asked for the first allocation that failed ("memory fails:
// ") and where it crashed ("it crashed: "): functions and libraries, the innermost first.
void PrepareMemory();

// Tells in the same way who asked for the latest allocation that failed ("its exception escapes: ").
void TellLatestFailure();

// From now on, where each living block comes from is kept.
void WatchBlocks();
// Where the blocks come from that live now and have been taken since WatchBlocks().
std::string LivingBlocks();

}  // namespace tarv::torture

#endif  // TORTURE_FAILING_MEMORY_H
