#include "life.h"

#include <exception>
#include <utility>

namespace tarv::torture {
namespace {

// An action that leads to its own callback ends there; so does a life that it makes larger and larger.
constexpr int kDeepest = 4;
constexpr int kMostActions = 8;

// Counts how deep actions are inside one another.
class Deeper {
 public:
  explicit Deeper(int& depth) : depth_(depth) { ++depth_; }
  ~Deeper() { --depth_; }
  Deeper(const Deeper&) = delete;
  Deeper& operator=(const Deeper&) = delete;

 private:
  int& depth_;
};

}  // namespace

void Survive(const std::function<void()>& step) {
  try {
    step();
  } catch (const std::exception&) {
  }
}

void Life::Plan(const std::string& callback, Move action, bool always) {
  planned_ = callback;
  action_ = std::move(action);
  always_ = always;
}

void Life::Live(const std::vector<Move>& ends) {
  for (const Move& step : GetSteps()) {
    Turn(step);
  }
  for (const Move& end : ends) {
    Turn(end);
    Turn([this] { UseEverything(); });
    Turn([this] { ArriveEverywhere(); });
  }
  action_ = nullptr;
  EndEverything();
}

std::shared_ptr<void> Life::Hold(const char* place) {
  ++held_[place];
  return {nullptr, [this, place](void*) {
            --held_[place];
            Hear(place);
          }};
}

void Life::ExpectNothingHeld() {
  for (const auto& [place, count] : held_) {
    if (count != 0) {
      Fault(std::to_string(count) + " never come: " + place);
    }
  }
}

void Life::Hear(const std::string& callback) {
  const int most = always_ ? kMostActions : 1;
  if (!action_ || planned_ != callback || actions_ >= most || depth_ == kDeepest) {
    return;
  }
  ++actions_;
  const Deeper deeper(depth_);
  const Move action = action_;
  action();
}

}  // namespace tarv::torture
