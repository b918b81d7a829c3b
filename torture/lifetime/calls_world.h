// The layer of calls: Callers, Services, KeptTasks, and the calls between them, on a loop whose clock
// the world turns.
#ifndef TORTURE_LIFETIME_CALLS_WORLD_H
#define TORTURE_LIFETIME_CALLS_WORLD_H

#include <tarv/calls/caller.h>
#include <tarv/calls/kept_task.h>
#include <tarv/calls/service.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "calls/tests/link.h"
#include "calls/tests/values.h"
#include "course.h"
#include "life.h"

namespace tarv::torture {

// An object that its owner may still use while it is being destroyed, from inside its callbacks.
template <class T>
class UntilItsEnd {
 public:
  void Put(std::unique_ptr<T> object) {
    object_ = std::move(object);
    reachable_ = object_.get();
  }
  T* Get() const { return reachable_; }
  void Forget() { reachable_ = nullptr; }
  // False when it is gone, or going.
  bool Drop() {
    auto object = std::move(object_);
    if (object == nullptr) {
      return false;
    }
    object.reset();
    reachable_ = nullptr;
    return true;
  }

 private:
  std::unique_ptr<T> object_;
  T* reachable_ = nullptr;
};

// What became of a call.
struct Called {
  const void* of;  // what it was made with
  int ends = 0;
};

// Both ends of one connection.
struct CallsTalk {
  explicit CallsTalk(const std::shared_ptr<test::TestLoop>& loop) : link(loop) {}

  test::Link link;
  std::shared_ptr<Service> service;
  UntilItsEnd<Caller> caller;
};

class CallsWorld : public Life {
 public:
  static const std::vector<Place> kPlaces;
  static const std::vector<Deed<CallsWorld>> kDeeds;
  static const std::vector<Deed<CallsWorld>> kEnds;

  void UseEverything() override;
  void ArriveEverywhere() override;

  // ---- Moves, for all talks

  void DropCallers();
  void DropServices();
  void DropKeptTask();
  void DropRequests();
  void DropConnections();
  void HangUp();
  void CancelAll();
  void AnswerAll();
  void LetTimePass();
  void BeginAnew();

 private:
  using Count = Request<counting::Totals, counting::Step>;

  std::vector<Move> GetSteps() override;
  void Turn(const Move& move) override;
  void EndEverything() override;

  CallsTalk& NewTalk();
  void Serve(CallsTalk& talk);
  void Keep();
  template <class Target>
  void CallAll(const UntilItsEnd<Target>& of);
  template <class Result, class Progress>
  void Consume(const Call<Result, Progress>& call, const void* of);
  template <class Target>
  void Drop(UntilItsEnd<Target>& of);

  const std::shared_ptr<test::TestLoop> loop_ = std::make_shared<test::TestLoop>();
  std::vector<std::unique_ptr<CallsTalk>> talks_;
  UntilItsEnd<KeptTask> kept_;
  std::vector<std::shared_ptr<Called>> called_;
  std::vector<Call<counting::Totals, counting::Step>> handles_;
  std::vector<Count> requests_;
};

}  // namespace tarv::torture

#endif  // TORTURE_LIFETIME_CALLS_WORLD_H
