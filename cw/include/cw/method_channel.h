// cw::MethodChannel: method calls between a plug-in and Dart.
//
//   cw::MethodChannel<> channel(registrar->GetMessenger(), "example/battery");
//   channel.SetMethodCallHandler([](const cw::MethodCall<>& call, auto result) {
//     call.GetMethodName() == "level" ? result->Success(87) : result->NotImplemented();
//   });
#ifndef CW_METHOD_CHANNEL_H
#define CW_METHOD_CHANNEL_H

#include <cw/binary_messenger.h>
#include <cw/diagnostics.h>
#include <cw/encodable_value.h>
#include <cw/method_call.h>
#include <cw/method_codec.h>
#include <cw/method_result.h>
#include <cw/reply_manager.h>
#include <quarn/buffer.h>
#include <quarn/export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace cw {

namespace internal {

// The codec of channels that name none: the standard one for EncodableValue, null for other types.
template <class T>
const MethodCodec<T>* GetDefaultMethodCodec() {
  if constexpr (std::is_same_v<T, EncodableValue>) {
    return &StandardMethodCodec::GetInstance();
  } else {
    return nullptr;
  }
}

// Answers a call from Dart. Complains on standard error about a second outcome, which it drops, and
// when it dies without any.
template <class T>
class TARV_EXPORT ChannelMethodResult final : public MethodResult<T> {
 public:
  ChannelMethodResult(BinaryReply reply, const MethodCodec<T>* codec)
      : reply_(std::move(reply)), codec_(codec) {}

 protected:
  void SuccessInternal(const T* result) override { Send(codec_->EncodeSuccessEnvelope(result)); }
  void ErrorInternal(const std::string& code, const std::string& message,
                     const T* details) override {
    Send(codec_->EncodeErrorEnvelope(code, message, details));
  }
  void NotImplementedInternal() override { reply_.SendResponseData(nullptr); }

 private:
  void Send(quarn::Buffer envelope) { reply_.SendResponseData(envelope.Extract().get()); }

  ReplyManager reply_;
  const MethodCodec<T>* codec_;
};

// Hands an outcome on, and remembers that it did.
template <class T>
class TARV_EXPORT WatchedMethodResult final : public MethodResult<T> {
 public:
  explicit WatchedMethodResult(MethodResult<T>* target) : target_(target) {}
  bool WasCalled() const { return was_called_; }

 protected:
  void SuccessInternal(const T* result) override {
    was_called_ = true;
    result == nullptr ? target_->Success() : target_->Success(*result);
  }
  void ErrorInternal(const std::string& code, const std::string& message,
                     const T* details) override {
    was_called_ = true;
    details == nullptr ? target_->Error(code, message) : target_->Error(code, message, *details);
  }
  void NotImplementedInternal() override {
    was_called_ = true;
    target_->NotImplemented();
  }

 private:
  MethodResult<T>* target_;
  bool was_called_ = false;
};

// The method call in a message, or an empty pointer for anything else.
template <class T>
std::unique_ptr<MethodCall<T>> DecodeCall(const MethodCodec<T>& codec, const std::uint8_t* message,
                                          std::size_t size) {
  try {
    return codec.DecodeMethodCall(message, size);
  } catch (const std::length_error&) {
    return nullptr;  // More than the codec is willing to read: nothing that Dart sends.
  }
}

// Whether the bytes were an outcome; if so, `result` has been told. Its exception passes through.
template <class T>
bool DecodeOutcome(const MethodCodec<T>& codec, const std::uint8_t* response, std::size_t size,
                   MethodResult<T>* result) {
  WatchedMethodResult<T> watched(result);
  try {
    return codec.DecodeAndProcessResponseEnvelope(response, size, &watched);
  } catch (const std::length_error&) {
    if (watched.WasCalled()) {
      throw;
    }
    return false;
  }
}

// Tells `result` the outcome that Dart's reply holds.
template <class T>
void DeliverOutcome(const std::string& channel, const MethodCodec<T>& codec,
                    const std::uint8_t* response, std::size_t size, MethodResult<T>* result) {
  if (response == nullptr || size == 0) {
    result->NotImplemented();
  } else if (!DecodeOutcome(codec, response, size, result)) {
    result->Error("malformed-reply",
                  "The reply to a call on the channel \"" + channel +
                      "\" cannot be read: both ends of a channel must use the same codec.");
  }
}

}  // namespace internal

// A handler gets the call, which lives during the handler only, and the result object, which it may
// keep and tell the outcome at any later time, once.
template <class T = EncodableValue>
using MethodCallHandler =
    std::function<void(const MethodCall<T>& call, std::unique_ptr<MethodResult<T>> result)>;

// A light object: it may die at once, its handler stays until it is replaced or removed, or the
// engine ends. Belongs to the platform thread, as the result objects do.
template <class T = EncodableValue>
class TARV_EXPORT MethodChannel {
 public:
  // Both stay the caller's; the codec must outlive the channel, its handler and what waits for
  // replies. With a null messenger, or one that is gone, a channel does nothing.
  MethodChannel(BinaryMessenger* messenger, std::string name,
                const MethodCodec<T>* codec = internal::GetDefaultMethodCodec<T>())
      : messenger_(messenger), name_(std::move(name)), codec_(codec) {}
  MethodChannel(const MethodChannel&) = delete;
  MethodChannel& operator=(const MethodChannel&) = delete;

  const std::string& GetName() const { return name_; }

  // Calls a method of Dart's. `result`, unless it is empty, is told the outcome: NotImplemented
  // when nobody listens, an error "malformed-reply" when the reply cannot be read. It is destroyed
  // without a word when the call could not be sent.
  void InvokeMethod(const std::string& method, std::unique_ptr<T> arguments = nullptr,
                    std::unique_ptr<MethodResult<T>> result = nullptr) const {
    BinaryMessenger* const messenger = messenger_.Get();
    if (messenger == nullptr) {
      return;
    }
    const quarn::Buffer message =
        codec_->EncodeMethodCall(MethodCall<T>(method, std::move(arguments)));
    messenger->Send(name_, message.GetData(), message.GetSize(),
                    result ? MakeReply(std::move(result)) : nullptr);
  }

  // Has the calls that Dart makes handled by `handler`; an empty one removes the present handler. A
  // message that is no call is answered as not implemented, after a line on standard error.
  void SetMethodCallHandler(MethodCallHandler<T> handler) const {
    BinaryMessenger* const messenger = messenger_.Get();
    if (messenger == nullptr) {
      return;
    }
    if (!handler) {
      messenger->SetMessageHandler(name_, nullptr);
      return;
    }
    messenger->SetMessageHandler(
        name_, [name = name_, codec = codec_, handler = std::move(handler)](
                   const std::uint8_t* message, std::size_t size, BinaryReply reply) {
          const auto call = internal::DecodeCall(*codec, message, size);
          if (!call) {
            internal::ReportNoMethodCall(name);
            reply(nullptr, 0);
            return;
          }
          handler(*call,
                  std::make_unique<internal::ChannelMethodResult<T>>(std::move(reply), codec));
        });
  }

 private:
  BinaryReply MakeReply(std::shared_ptr<MethodResult<T>> result) const {
    return [name = name_, codec = codec_, result = std::move(result)](const std::uint8_t* response,
                                                                      std::size_t size) {
      internal::DeliverOutcome(name, *codec, response, size, result.get());
    };
  }

  internal::MessengerRef messenger_;
  std::string name_;
  const MethodCodec<T>* codec_;
};

}  // namespace cw

#endif  // CW_METHOD_CHANNEL_H
