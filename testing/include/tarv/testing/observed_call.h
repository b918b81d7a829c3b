// tarv::testing::ObservedCall: a call that a test has made, and all that came of it.
#ifndef TARV_TESTING_OBSERVED_CALL_H
#define TARV_TESTING_OBSERVED_CALL_H

#include <tarv/calls/call.h>
#include <tarv/calls/outcome.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace tarv::testing {

// Made by World::Call. Copies are handles of the same call. Belongs to the thread of the world's
// loop, and may outlive the world.
template <class Result, class Progress = void>
class ObservedCall {
 public:
  using ResultType = Result;
  // What there is instead of steps of type void.
  using Step = std::conditional_t<std::is_void_v<Progress>, std::monostate, Progress>;
  using TellTranscript = std::function<std::string()>;

  // Consumes `call`.
  ObservedCall(tarv::Call<Result, Progress> call, const std::string& method,
               const TellTranscript& tell)
      : call_(std::move(call)), record_(std::make_shared<Record>()) {
    record_->method = method;
    record_->tell_transcript = tell;
    call_.Then([record = record_](Outcome<Result> outcome) {
      record->outcome.emplace(std::move(outcome));
    });
    if constexpr (!std::is_void_v<Progress>) {
      call_.OnProgress([record = record_](Step step) { record->steps.push_back(std::move(step)); });
    }
  }

  const std::string& GetMethod() const { return record_->method; }
  bool HasEnded() const { return record_->outcome.has_value(); }
  // How it ended. Throws std::logic_error while it is open.
  const Outcome<Result>& GetOutcome() const {
    if (!HasEnded()) {
      throw std::logic_error("tarv::testing: the call of '" + record_->method +
                             "' has not ended; the transcript:\n" + GetTranscript());
    }
    return *record_->outcome;
  }
  // The steps that the task reported until now.
  const std::vector<Step>& GetSteps() const { return record_->steps; }

  void Cancel() const { call_.Cancel(); }

  // The conversation that the call is part of.
  std::string GetTranscript() const { return record_->tell_transcript(); }

 private:
  struct Record {
    std::string method;
    TellTranscript tell_transcript;
    std::optional<Outcome<Result>> outcome;
    std::vector<Step> steps;
  };

  tarv::Call<Result, Progress> call_;
  std::shared_ptr<Record> record_;
};

}  // namespace tarv::testing

#endif  // TARV_TESTING_OBSERVED_CALL_H
