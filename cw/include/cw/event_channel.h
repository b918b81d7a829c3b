// cw::EventChannel: a stream of events from a plug-in to Dart.
//
//   cw::EventChannel<> channel(registrar->GetMessenger(), "example/ticks");
//   channel.SetStreamHandler(std::make_unique<cw::StreamHandlerFunctions<>>(
//       [this](const cw::EncodableValue*, std::unique_ptr<cw::EventSink<>> events) {
//         events_ = std::move(events);  // events_->Success(1) from now on
//         return nullptr;
//       },
//       [this](const cw::EncodableValue*) {
//         events_.reset();
//         return nullptr;
//       }));
#ifndef CW_EVENT_CHANNEL_H
#define CW_EVENT_CHANNEL_H

#include <cw/binary_messenger.h>
#include <cw/diagnostics.h>
#include <cw/encodable_value.h>
#include <cw/method_call.h>
#include <cw/method_channel.h>
#include <cw/method_codec.h>
#include <quarn/buffer.h>
#include <quarn/export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace cw {

// Where a plug-in puts its events while Dart listens. Once the stream has ended (Dart cancelled,
// the handler was replaced, the engine is gone, EndOfStream), events are dropped silently: a sink
// may be kept for as long as one likes. Belongs to the platform thread; from others, go through
// ApplicationWrapper::EnqueueTask.
template <class T = EncodableValue>
class TARV_EXPORT EventSink {
 public:
  EventSink() = default;
  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;
  virtual ~EventSink() = default;

  void Success() { SuccessInternal(nullptr); }
  void Success(const T& event) { SuccessInternal(&event); }
  // An error is an event like others: the stream goes on.
  void Error(const std::string& code, const std::string& message = "") {
    ErrorInternal(code, message, nullptr);
  }
  void Error(const std::string& code, const std::string& message, const T& details) {
    ErrorInternal(code, message, &details);
  }
  void EndOfStream() { EndOfStreamInternal(); }

 protected:
  virtual void SuccessInternal(const T* event) = 0;
  virtual void ErrorInternal(const std::string& code, const std::string& message,
                             const T* details) = 0;
  virtual void EndOfStreamInternal() = 0;
};

// Why a stream handler refuses.
template <class T = EncodableValue>
struct TARV_EXPORT StreamHandlerError {
  std::string code;
  std::string message;
  std::unique_ptr<T> details;  // empty for none
};

// Called when Dart begins and ends to listen. Owned by the messenger; destroyed when it is replaced
// or removed, or the engine ends.
template <class T = EncodableValue>
class TARV_EXPORT StreamHandler {
 public:
  StreamHandler() = default;
  StreamHandler(const StreamHandler&) = delete;
  StreamHandler& operator=(const StreamHandler&) = delete;
  virtual ~StreamHandler() = default;

  // Dart listens: `events` is where events go from now on. `arguments`, null for none, live during
  // the call only. An empty pointer means that all is well; an error refuses the listener.
  std::unique_ptr<StreamHandlerError<T>> OnListen(const T* arguments,
                                                  std::unique_ptr<EventSink<T>> events) {
    return OnListenInternal(arguments, std::move(events));
  }
  // Dart listens no more, or anew: a second "listen" cancels the first, with null arguments.
  std::unique_ptr<StreamHandlerError<T>> OnCancel(const T* arguments) {
    return OnCancelInternal(arguments);
  }

 protected:
  virtual std::unique_ptr<StreamHandlerError<T>> OnListenInternal(
      const T* arguments, std::unique_ptr<EventSink<T>> events) = 0;
  virtual std::unique_ptr<StreamHandlerError<T>> OnCancelInternal(const T* arguments) = 0;
};

// A stream handler made of two functions; an empty one accepts.
template <class T = EncodableValue>
class TARV_EXPORT StreamHandlerFunctions final : public StreamHandler<T> {
 public:
  using ListenHandler = std::function<std::unique_ptr<StreamHandlerError<T>>(
      const T* arguments, std::unique_ptr<EventSink<T>> events)>;
  using CancelHandler = std::function<std::unique_ptr<StreamHandlerError<T>>(const T* arguments)>;

  StreamHandlerFunctions(ListenHandler on_listen, CancelHandler on_cancel)
      : on_listen_(std::move(on_listen)), on_cancel_(std::move(on_cancel)) {}

 protected:
  std::unique_ptr<StreamHandlerError<T>> OnListenInternal(
      const T* arguments, std::unique_ptr<EventSink<T>> events) override {
    return on_listen_ ? on_listen_(arguments, std::move(events)) : nullptr;
  }
  std::unique_ptr<StreamHandlerError<T>> OnCancelInternal(const T* arguments) override {
    return on_cancel_ ? on_cancel_(arguments) : nullptr;
  }

 private:
  ListenHandler on_listen_;
  CancelHandler on_cancel_;
};

namespace internal {

// The way from a sink to its channel; closed when the stream ends.
template <class T>
class TARV_EXPORT EventPipe {
 public:
  // Closed also by the end of `handler_life`.
  EventPipe(const MessengerRef& messenger, std::string channel, const MethodCodec<T>* codec,
            std::weak_ptr<const void> handler_life)
      : messenger_(messenger),
        channel_(std::move(channel)),
        codec_(codec),
        handler_life_(std::move(handler_life)) {}

  void Close() { is_open_ = false; }
  const MethodCodec<T>& GetCodec() const { return *codec_; }

  void Send(const quarn::Buffer& event) const {
    const BinaryMessenger* const messenger = messenger_.Get();
    if (is_open_ && !handler_life_.expired() && messenger != nullptr) {
      messenger->Send(channel_, event.GetData(), event.GetSize());
    }
  }

 private:
  MessengerRef messenger_;
  std::string channel_;
  const MethodCodec<T>* codec_;
  std::weak_ptr<const void> handler_life_;
  bool is_open_ = true;
};

template <class T>
class TARV_EXPORT PipeEventSink final : public EventSink<T> {
 public:
  explicit PipeEventSink(std::shared_ptr<EventPipe<T>> pipe) : pipe_(std::move(pipe)) {}

 protected:
  void SuccessInternal(const T* event) override {
    pipe_->Send(pipe_->GetCodec().EncodeSuccessEnvelope(event));
  }
  void ErrorInternal(const std::string& code, const std::string& message,
                     const T* details) override {
    pipe_->Send(pipe_->GetCodec().EncodeErrorEnvelope(code, message, details));
  }
  void EndOfStreamInternal() override {
    pipe_->Send({});
    pipe_->Close();
  }

 private:
  std::shared_ptr<EventPipe<T>> pipe_;
};

// The messenger's end of an event channel: the handler, and the stream while there is one.
template <class T>
class TARV_EXPORT StreamEndpoint {
 public:
  StreamEndpoint(const MessengerRef& messenger, std::string channel, const MethodCodec<T>* codec,
                 std::unique_ptr<StreamHandler<T>> handler)
      : messenger_(messenger),
        channel_(std::move(channel)),
        codec_(codec),
        handler_(std::move(handler)) {}
  StreamEndpoint(const StreamEndpoint&) = delete;
  StreamEndpoint& operator=(const StreamEndpoint&) = delete;

  void OnMessage(const std::uint8_t* message, std::size_t size, const BinaryReply& reply) {
    const auto call = DecodeCall(*codec_, message, size);
    if (!call) {
      ReportNoMethodCall(channel_);
      reply(nullptr, 0);
    } else if (call->GetMethodName() == "listen") {
      Answer(Listen(call->GetArguments()), reply);
    } else if (call->GetMethodName() == "cancel") {
      Answer(Cancel(call->GetArguments()), reply);
    } else {
      reply(nullptr, 0);
    }
  }

 private:
  using Refusal = std::unique_ptr<StreamHandlerError<T>>;

  Refusal Listen(const T* arguments) {
    // A handler that is replaced or removed while it runs is at its end, although this call still
    // holds it.
    const std::weak_ptr<const void> life = GetLife();
    if (pipe_) {
      ClosePipe();
      handler_->OnCancel(nullptr);
    }
    if (life.expired()) {
      return Refuse("The handler of the channel \"" + channel_ + "\" has gone.");
    }
    const auto pipe = std::make_shared<EventPipe<T>>(messenger_, channel_, codec_, life);
    pipe_ = pipe;
    Refusal refusal = handler_->OnListen(arguments, std::make_unique<PipeEventSink<T>>(pipe));
    if (refusal && pipe_ == pipe) {
      ClosePipe();
    }
    return refusal;
  }

  Refusal Cancel(const T* arguments) {
    if (!pipe_) {
      return Refuse("Nobody listens on the channel \"" + channel_ + "\".");
    }
    ClosePipe();
    return handler_->OnCancel(arguments);
  }

  std::weak_ptr<const void> GetLife() const {
    const BinaryMessenger* const messenger = messenger_.Get();
    return messenger == nullptr ? std::weak_ptr<const void>() : messenger->GetHandlerLife(channel_);
  }

  static Refusal Refuse(std::string message) {
    return Refusal(new StreamHandlerError<T>{"no-stream", std::move(message), nullptr});
  }

  void ClosePipe() {
    if (const auto pipe = std::exchange(pipe_, nullptr)) {
      pipe->Close();
    }
  }

  void Answer(const Refusal& refusal, const BinaryReply& reply) const {
    const quarn::Buffer envelope =
        refusal
            ? codec_->EncodeErrorEnvelope(refusal->code, refusal->message, refusal->details.get())
            : codec_->EncodeSuccessEnvelope();
    reply(envelope.GetData(), envelope.GetSize());
  }

  MessengerRef messenger_;
  std::string channel_;
  const MethodCodec<T>* codec_;
  std::unique_ptr<StreamHandler<T>> handler_;
  std::shared_ptr<EventPipe<T>> pipe_;
};

}  // namespace internal

// A light object, as MethodChannel. Belongs to the platform thread.
template <class T = EncodableValue>
class TARV_EXPORT EventChannel {
 public:
  // As MethodChannel's.
  EventChannel(BinaryMessenger* messenger, std::string name,
               const MethodCodec<T>* codec = internal::GetDefaultMethodCodec<T>())
      : messenger_(messenger), name_(std::move(name)), codec_(codec) {}
  EventChannel(const EventChannel&) = delete;
  EventChannel& operator=(const EventChannel&) = delete;

  const std::string& GetName() const { return name_; }

  // Makes `handler` the channel's; an empty pointer removes the present one. Either ends the stream
  // of the handler before, without calling it.
  void SetStreamHandler(std::unique_ptr<StreamHandler<T>> handler) const {
    BinaryMessenger* const messenger = messenger_.Get();
    if (messenger == nullptr) {
      return;
    }
    if (!handler) {
      messenger->SetMessageHandler(name_, nullptr);
      return;
    }
    const auto endpoint = std::make_shared<internal::StreamEndpoint<T>>(messenger_, name_, codec_,
                                                                        std::move(handler));
    messenger->SetMessageHandler(
        name_, [endpoint](const std::uint8_t* message, std::size_t size, const BinaryReply& reply) {
          endpoint->OnMessage(message, size, reply);
        });
  }

 private:
  internal::MessengerRef messenger_;
  std::string name_;
  const MethodCodec<T>* codec_;
};

}  // namespace cw

#endif  // CW_EVENT_CHANNEL_H
