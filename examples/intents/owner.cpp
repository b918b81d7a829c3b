// Registers the intent "example.weigh" and answers whoever invokes it, until it is told to end.

#include <cw/encodable_value.h>
#include <tarv/tarv_capi.h>
#include <veltra/host/run.h>

#include <cstdlib>
#include <iostream>

namespace {

void AnswerWeigh(void* /*user_data*/, TARVReplyIntentSlot* reply) {
  const auto answer = cw::EncodableValue(cw::EncodableMap{{"grams", 7}, {"of", "feathers"}});
  const quarn::Buffer bytes = answer.Serialize();
  reply->callback(reply->user_data, bytes.GetData(), bytes.GetSize());
  reply->release(reply->user_data);
}

bool RegisterIntent() {
  TARVProcTable root{};
  TARVIntentManagerProcTable table{};
  if (TARVProcTableLoad(&root, sizeof(root)) != QUARN_RESULT_SUCCESS ||
      root.IntentManagerProcTableLoad(&table, sizeof(table)) != QUARN_RESULT_SUCCESS) {
    return false;
  }
  TARVRegisterIntentSlot slot{};
  slot.size = sizeof(slot);
  slot.callback = &AnswerWeigh;
  _TARVIntentManagerRef* const intents = root.GetIntentManager(root.Initialize());
  return table.RegisterIntent(intents, "example.weigh", &slot) == QUARN_RESULT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  return veltra::host::RunApplication(argc, argv, {}, {}, [](veltra::host::Engine&) {
    if (!RegisterIntent()) {
      std::exit(EXIT_FAILURE);
    }
    std::cerr << "intents: example.weigh is registered; end with Ctrl-C\n";
  });
}
