// A library that plays the service: what its tables hold and what its entries answer is up to the
// test, which reaches the library's state through the symbol "GetFakeLibrary".
#ifndef WRAPPER_FAKE_LIBRARY_H
#define WRAPPER_FAKE_LIBRARY_H

#include <tarv/tarv_capi.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace tarv::test {

struct FakeLibrary {
  // What the loaders state as the size of their table; 0: what they were given.
  std::uint64_t root_size = 0;
  std::uint64_t client_size = 0;
  std::uint64_t server_size = 0;
  std::uint64_t intents_size = 0;
  // Names of entries that are null, although their size covers them.
  std::set<std::string> null_entries;
  // Names of entries that fail: null handles, refusals.
  std::set<std::string> failing;

  // Called from inside each send, unless it is empty.
  std::function<void()> on_send;

  // Called from inside the manager's release, unless it is empty.
  std::function<void()> on_release;

  // Every call with its arguments but the slots, handles as their numbers: "Unlock(13, 77)". The
  // entries give these handles: manager 11, intents 12, client 13, server 14.
  std::vector<std::string> calls;
  // What the wrapper passed in besides.
  std::size_t root_size_given = 0;
  TARVRpcClientSlots client_slots{};
  TARVRpcServerSlots server_slots{};
  std::vector<TARVOpenUriSlot> uri_slots;
};

using GetFakeLibraryFunction = FakeLibrary*();

}  // namespace tarv::test

#endif  // WRAPPER_FAKE_LIBRARY_H
