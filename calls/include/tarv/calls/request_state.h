// The state that a Request and its Service share. Read request.h first.
#ifndef TARV_CALLS_REQUEST_STATE_H
#define TARV_CALLS_REQUEST_STATE_H

#include <cw/encodable_value.h>
#include <tarv/calls/loop.h>
#include <tarv/calls/misfit.h>
#include <vorpc/message.h>
#include <vorpc/server.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace tarv::details {

class ServiceCore;
struct Answer;
struct OpenRequest;

// One request, without its types. Any thread. Its end answers it if nobody has.
//
// Whatever throws std::bad_alloc leaves the request as it was: open, and to be answered with less, or
// later.
class RequestState : public std::enable_shared_from_this<RequestState> {
 public:
  // Those of a request that is not there yet.
  explicit RequestState(const OpenRequest& request);
  ~RequestState();
  RequestState(const RequestState&) = delete;
  RequestState& operator=(const RequestState&) = delete;

  // The request, which this has to answer from now on.
  void Open(std::shared_ptr<OpenRequest> request) noexcept;

  // The first of these four answers; what comes later is logged and dropped.
  void AnswerResult(cw::EncodableValue&& result);
  void AnswerError(std::int32_t code, std::string message, cw::EncodableValue data);
  // With what the exception says.
  void AnswerException(const std::exception_ptr& exception);
  void AnswerMisfit(const Misfit& misfit, const char* root);

  void SendProgress(cw::EncodableValue&& value);
  bool IsCancelled() const { return cancelled_; }
  void OnCancel(std::function<void()> callback);

  // The loop's thread: the application has cancelled.
  void Cancel();
  // Empty when the service has ended.
  const std::weak_ptr<ServiceCore>& GetCore() const { return core_; }

 private:
  // What the answer ends.
  struct Taken {
    std::shared_ptr<OpenRequest> open;
    std::function<void()> on_cancel;
  };

  void Give(Answer&& answer);
  Taken Take();
  void PutBack(Taken&& taken) noexcept;
  Answer MakeAnswerOfEnd() const;

  const std::shared_ptr<Loop> loop_;
  const std::string method_;
  const std::string id_;
  const std::weak_ptr<vorpc::IServer> server_;
  const std::weak_ptr<ServiceCore> core_;
  std::atomic<bool> cancelled_{false};
  std::mutex mutex_;                   // guards what follows
  std::shared_ptr<OpenRequest> open_;  // null once answered
  std::function<void()> on_cancel_;
};

}  // namespace tarv::details

#endif  // TARV_CALLS_REQUEST_STATE_H
