// What comes of a run: the last line of the program's output, a JSON object.
#ifndef TORTURE_FACTS_H
#define TORTURE_FACTS_H

#include <string>

namespace tarv::torture {

void SetFact(const char* name, long value);
// How many allocations were asked for, and how many failed, so far.
void KeepCounts();
// Tells what is wrong, unless it is "". The first counts.
void Wrong(const std::string& what);
// Writes the line.
void Tell();
// Ends what is broken for good, and tells what is wrong.
[[noreturn]] void GiveUp(const std::string& what);

}  // namespace tarv::torture

#endif  // TORTURE_FACTS_H
