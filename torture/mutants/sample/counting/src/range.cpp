#include "range.h"

namespace counting {
namespace {

constexpr int kSteps[2] = {1, 2};

void Note(int* calls) {
  if (calls != nullptr) {
    *calls = *calls + 1;
  }
}

}  // namespace

int Range::Clamp(int value, int* calls) const {
  Note(calls);
  if (value < low_) {
    return low_;
  }
  return value > high_ ? high_ : value;
}

int Range::Length() const { return Distance(low_, high_) * kSteps[0]; }

int Distance(int from, int to) {
  int steps = 0;
  while (from < to) {  // it counts, so that a fault can hang it
    ++from;
    ++steps;
  }
  return steps;
}

}  // namespace counting
