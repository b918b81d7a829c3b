// Any bytes as a method call and as its reply: a value, a refusal, or std::length_error.
#include <cw/method_codec.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/require.h"
#include "support/values.h"

namespace {

using tarv::fuzz::Require;

void ReadCall(const cw::StandardMethodCodec& codec, const std::uint8_t* data, std::size_t size) {
  const auto call = codec.DecodeMethodCall(data, size);
  if (!call || call->GetArguments() == nullptr ||
      tarv::fuzz::HasUnorderedKey(*call->GetArguments())) {
    return;
  }
  const auto again = codec.DecodeMethodCall(codec.EncodeMethodCall(*call));
  Require(again != nullptr, "a call that was written can be read");
  Require(again->GetMethodName() == call->GetMethodName(), "the method's name comes back");
  Require(tarv::fuzz::AreSame(*again->GetArguments(), *call->GetArguments()),
          "the arguments come back");
}

// What a reply told.
struct Outcome {
  int calls = 0;
  bool is_success = false;
  std::string code;
  std::string message;
  std::optional<cw::EncodableValue> value;
};

std::optional<cw::EncodableValue> CopyOf(const cw::EncodableValue* value) {
  return value == nullptr ? std::nullopt : std::optional(*value);
}

std::optional<Outcome> Hear(const cw::StandardMethodCodec& codec, const std::uint8_t* data,
                            std::size_t size) {
  Outcome outcome;
  cw::MethodResultFunctions<> result(
      [&outcome](const cw::EncodableValue* value) {
        ++outcome.calls;
        outcome.is_success = true;
        outcome.value = CopyOf(value);
      },
      [&outcome](const std::string& code, const std::string& message,
                 const cw::EncodableValue* details) {
        ++outcome.calls;
        outcome.code = code;
        outcome.message = message;
        outcome.value = CopyOf(details);
      },
      [&outcome] { outcome.calls += 100; });
  const bool is_reply = codec.DecodeAndProcessResponseEnvelope(data, size, &result);
  Require(outcome.calls == (is_reply ? 1 : 0), "one outcome for a reply, none for anything else");
  return is_reply ? std::optional(std::move(outcome)) : std::nullopt;
}

quarn::Buffer Write(const cw::StandardMethodCodec& codec, const Outcome& outcome) {
  const cw::EncodableValue* const value = outcome.value ? &*outcome.value : nullptr;
  return outcome.is_success ? codec.EncodeSuccessEnvelope(value)
                            : codec.EncodeErrorEnvelope(outcome.code, outcome.message, value);
}

void ReadReply(const cw::StandardMethodCodec& codec, const std::uint8_t* data, std::size_t size) {
  const auto outcome = Hear(codec, data, size);
  if (!outcome || (outcome->value && tarv::fuzz::HasUnorderedKey(*outcome->value))) {
    return;
  }
  const quarn::Buffer bytes = Write(codec, *outcome);
  const auto again = Hear(codec, bytes.GetData(), bytes.GetSize());
  Require(again.has_value(), "a reply that was written can be read");
  Require(again->is_success == outcome->is_success && again->code == outcome->code &&
              again->message == outcome->message,
          "a reply's kind, code and message come back");
  Require(again->value.has_value() == outcome->value.has_value() &&
              (!again->value || tarv::fuzz::AreSame(*again->value, *outcome->value)),
          "a reply's value comes back");
}

// Decoding may refuse what is beyond the bounds.
template <class Action>
void WithinBounds(Action&& action) {
  try {
    action();
  } catch (const std::length_error&) {
    return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto& codec = cw::StandardMethodCodec::GetInstance();
  WithinBounds([&codec, data, size] { ReadCall(codec, data, size); });
  WithinBounds([&codec, data, size] { ReadReply(codec, data, size); });
  return 0;
}
