// Any bytes as a method call and as its reply: a value, a refusal, or std::length_error.
#include <cw/method_codec.h>

#include <stdexcept>
#include <string>

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

void ReadReply(const cw::StandardMethodCodec& codec, const std::uint8_t* data, std::size_t size) {
  int calls = 0;
  cw::MethodResultFunctions<> result(
      [&calls](const cw::EncodableValue*) { ++calls; },
      [&calls](const std::string&, const std::string&, const cw::EncodableValue*) { ++calls; },
      [&calls] { calls += 100; });
  const bool is_reply = codec.DecodeAndProcessResponseEnvelope(data, size, &result);
  Require(calls == (is_reply ? 1 : 0), "one outcome for a reply, none for anything else");
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
