#include "words_plugin.h"

#include <chrono>
#include <utility>

#include "history.h"
#include "words.h"

namespace words {
namespace {

using namespace std::chrono_literals;

tarv::KeepPolicy Policy() {
  tarv::KeepPolicy policy;
  policy.restart = Has(Bug::kStaysDead) ? tarv::Restart::kNever : tarv::Restart::kAtNextCall;
  return policy;
}

}  // namespace

WordsPlugin::WordsPlugin(cw::PluginRegistrar* registrar, tarv::KeptTask::Factory factory,
                         std::shared_ptr<tarv::Loop> loop)
    : task_(std::move(factory), kTask, Policy(), std::move(loop)),
      channel_(registrar->GetMessenger(), kChannel) {
  channel_.SetMethodCallHandler([this](const cw::MethodCall<>& call, auto result) {
    const auto* const text = std::get_if<std::string>(call.GetArguments());
    if (call.GetMethodName() == "add" && text != nullptr) {
      Add(*text, std::move(result));
    } else {
      result->NotImplemented();
    }
  });
}

void WordsPlugin::Add(const std::string& text, const Result& result) {
  const auto options =
      Has(Bug::kWaitsTooLong) ? tarv::CallOptions() : tarv::CallOptions().Timeout(5s);
  latest_ = result;
  task_.Call(kAdd, {++pieces_, text}, options)
      .Then([this, result](const tarv::Outcome<std::int64_t>& total) {
        const Result& answered = Has(Bug::kMixesUpAnswers) ? latest_ : result;
        if (total) {
          answered->Success(cw::EncodableValue(*total));
        } else if (!Has(Bug::kForgetsErrors)) {
          answered->Error("words", total.GetError().what());
        }
      });
}

}  // namespace words
