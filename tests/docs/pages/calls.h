// What docs/calls.md leaves out.
#include <tarv/calls/caller.h>
#include <tarv/calls/method.h>
#include <tarv/calls/service.h>
#include <tarv/calls/value.h>
#include <tarv/manager_wrapper.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using namespace std::chrono_literals;
struct Anything {
  template <class Wanted>
  operator Wanted() const;  // NOLINT: as implicit as what it stands for
};
template <class Texts>
Anything Count(const Texts& texts);
template <class Shown>
void Show(const Shown& shown);
void Use(std::int64_t total);
