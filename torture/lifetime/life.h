// A life of everything that one layer has: a row of steps in an order that never changes, an action
// inside one of the callbacks, and then ends in any order.
//
// Nothing in a life asks whether the action has ended what a step is about, so each step is a use
// after the end, too.
#ifndef TORTURE_LIFETIME_LIFE_H
#define TORTURE_LIFETIME_LIFE_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tarv::torture {

// What those who call a callback do with its exception: they go on.
void Survive(const std::function<void()>& step);

class Life {
 public:
  using Move = std::function<void()>;

  Life() = default;
  virtual ~Life() = default;
  Life(const Life&) = delete;
  Life& operator=(const Life&) = delete;

  // Takes `action` the first time that `callback` comes; each time, if `always`.
  void Plan(const std::string& callback, Move action, bool always);
  // Plays the steps, then the ends, and ends what is left.
  void Live(const std::vector<Move>& ends);
  bool HasActed() const { return actions_ > 0; }
  // What was not as it is promised, a line for each.
  const std::vector<std::string>& GetFaults() const { return faults_; }

 protected:
  // Each callback calls this with its name. An exception of the action comes out.
  void Hear(const std::string& callback);
  void Fault(const std::string& what) { faults_.push_back(what); }
  // To be held by a callback, whose end is a callback, too: `place`.
  std::shared_ptr<void> Hold(const char* place);
  // At the end: each callback must have come to its own.
  void ExpectNothingHeld();

  virtual std::vector<Move> GetSteps() = 0;
  // One turn of what brings the news.
  virtual void Turn(const Move& move) { Survive(move); }
  // Each operation of each object, dead or alive.
  virtual void UseEverything() = 0;
  // Everything arrives that may.
  virtual void ArriveEverywhere() = 0;
  // Ends what is left, and looks whether anything stays.
  virtual void EndEverything() = 0;

 private:
  std::string planned_;
  Move action_;
  bool always_ = false;
  int actions_ = 0;
  int depth_ = 0;
  std::vector<std::string> faults_;
  std::map<std::string, int> held_;  // callbacks that have not been destroyed
};

}  // namespace tarv::torture

#endif  // TORTURE_LIFETIME_LIFE_H
