// The state that a Call and its Caller share. Read call.h first.
#ifndef TARV_CALLS_CALL_STATE_H
#define TARV_CALLS_CALL_STATE_H

#include <cw/encodable_value.h>
#include <tarv/calls/call_error.h>
#include <tarv/calls/call_options.h>
#include <tarv/calls/conversion.h>
#include <tarv/calls/loop.h>
#include <tarv/calls/misfit.h>
#include <tarv/calls/outcome.h>
#include <vorpc/message.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

namespace tarv::details {

class CallerCore;
struct MethodMeter;

// One call, without its types. Everything but the operations that say otherwise belongs to the
// loop's thread.
class CallState : public std::enable_shared_from_this<CallState> {
 public:
  using Consumer = std::function<void(CallState&)>;
  using ProgressHandler = std::function<void(const cw::EncodableValue&)>;

  CallState(std::shared_ptr<CallerCore> core, std::string_view method, const CallOptions& options,
            bool has_progress);
  virtual ~CallState();
  CallState(const CallState&) = delete;
  CallState& operator=(const CallState&) = delete;

  // Gives the call to its Caller. Any thread, once. A misfit is that of the parameters. Throws
  // std::bad_alloc: then nothing more comes of the call.
  void Start(cw::EncodableValue&& params, bool fits, const Misfit& misfit);
  // Any thread. The consumer runs on the loop's thread, once, and never inside this call. A second
  // one ends the process. Throws std::bad_alloc: then there is no consumer yet.
  void Consume(Consumer consumer);
  // Any thread but the loop's: waits for the end, whose outcome this thread may then take. False on
  // the loop's thread, where nothing happens.
  bool WaitForEnd();
  // Any thread.
  void SetProgressHandler(ProgressHandler handler);
  // Any thread.
  void Cancel();

  const std::string& GetMethod() const { return method_; }
  CallError MakeWouldBlockError() const;
  // After the end: why there is no result.
  std::optional<CallError>& GetError() { return error_; }

 protected:
  // Keeps the result, for the consumer. False, with the misfit reported, when it does not fit.
  virtual bool KeepResult(const cw::EncodableValue& result, Misfit& misfit) = 0;

 private:
  friend class CallerCore;
  friend class OpenCalls;

  // Where the call is.
  enum class Phase { kNew, kKept, kSent, kEnded };

  void HandleProgress(const cw::EncodableValue& value);
  // Hands the outcome over. An exception of the consumer is logged.
  void Finish() noexcept;
  void ClaimConsumer();

  const std::shared_ptr<CallerCore> core_;
  const std::string method_;
  const Loop::Time started_;
  const Loop::Time deadline_;
  const bool has_progress_;
  Phase phase_ = Phase::kNew;
  cw::EncodableValue params_;  // until they are sent
  std::string misfit_;         // what is wrong with them
  vorpc::Message::ID id_{""};  // once sent, if the client tells
  MethodMeter* meter_ = nullptr;
  std::uint64_t number_ = 0;      // in the order of calls, once it is open
  CallState* earlier_ = nullptr;  // of the open calls
  CallState* later_ = nullptr;
  std::optional<CallError> error_;

  std::mutex mutex_;  // guards what follows
  bool finished_ = false;
  bool consumed_ = false;
  Consumer consumer_;
  std::shared_ptr<const ProgressHandler> progress_handler_;
};

template <class Result>
class TypedCallState final : public CallState {
 public:
  using CallState::CallState;

  // Once, after the end.
  Outcome<Result> TakeOutcome() {
    if (GetError()) {
      return *std::move(GetError());
    }
    return std::move(result_);
  }

 protected:
  bool KeepResult(const cw::EncodableValue& result, Misfit& misfit) override {
    if constexpr (std::is_void_v<Result>) {
      static_cast<void>(result);
      static_cast<void>(misfit);
      return true;
    } else {
      return Conversion<Result>::Read(result, result_, misfit);
    }
  }

 private:
  typename Outcome<Result>::Value result_{};
};

}  // namespace tarv::details

#endif  // TARV_CALLS_CALL_STATE_H
