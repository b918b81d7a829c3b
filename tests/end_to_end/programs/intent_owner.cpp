// An application that owns an intent, through the C interface:
//
//   intent_owner NAME HOW
//
// HOW is map, list, garbage (what it answers with), later (a map, from the event loop), release (no
// answer) or die. It says "ready" on standard error, then what happens on standard output.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/tarv_capi.h>
#include <unistd.h>
#include <veltra/host/run.h>

#include <QTimer>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

namespace {

void Say(const std::string& text) { std::cout << text << std::endl; }

class IntentOwner final : public cw::Plugin {
 public:
  explicit IntentOwner(cw::PluginRegistrar* registrar)
      : arguments_(registrar->GetApplicationWrapper()->GetDartEntryPointArgs()) {
    timer_.setSingleShot(true);
    QObject::connect(&timer_, &QTimer::timeout, &timer_, [this] { AnswerAllThatWait(); });
    TARVProcTableLoad(&root_, sizeof(root_));
    root_.IntentManagerProcTableLoad(&table_, sizeof(table_));
    manager_ = root_.Initialize();
    TARVRegisterIntentSlot slot{};
    slot.size = sizeof(slot);
    slot.callback = &IntentOwner::OnInvoked;
    slot.user_data = this;
    if (table_.RegisterIntent(root_.GetIntentManager(manager_), arguments_.at(0).c_str(), &slot) ==
        QUARN_RESULT_SUCCESS) {
      std::cerr << "ready" << std::endl;
    }
  }

  ~IntentOwner() override { root_.Release(manager_); }

 private:
  static void OnInvoked(void* user_data, TARVReplyIntentSlot* reply) {
    static_cast<IntentOwner*>(user_data)->Serve(*reply);
  }

  void Serve(TARVReplyIntentSlot reply) {
    Say("asked");
    const std::string& how = arguments_.at(1);
    if (how == "die") {
      _exit(1);
    } else if (how == "later") {
      constexpr int kLaterMs = 30;
      waiting_.push_back(reply);
      timer_.start(kLaterMs);
    } else if (how == "release") {
      reply.release(reply.user_data);
    } else if (how == "garbage") {
      constexpr std::uint8_t kNoSuchType[] = {0xEE, 0xFF};
      reply.callback(reply.user_data, kNoSuchType, sizeof(kNoSuchType));
      reply.release(reply.user_data);
    } else {
      Answer(reply, how == "list" ? cw::EncodableValue(cw::EncodableList{1, 2})
                                  : cw::EncodableMap{{"n", 7}, {"deep", cw::EncodableMap{}}});
    }
  }

  void AnswerAllThatWait() {
    for (const TARVReplyIntentSlot& reply : std::exchange(waiting_, {})) {
      Say("answers");
      Answer(reply, cw::EncodableMap{{"n", 7}});
    }
  }

  static void Answer(const TARVReplyIntentSlot& reply, const cw::EncodableValue& value) {
    const quarn::Buffer bytes = value.Serialize();
    reply.callback(reply.user_data, bytes.GetData(), bytes.GetSize());
    reply.release(reply.user_data);
  }

  const std::vector<std::string> arguments_;
  TARVProcTable root_{};
  TARVIntentManagerProcTable table_{};
  _TARVManagerRef* manager_ = nullptr;
  std::vector<TARVReplyIntentSlot> waiting_;
  QTimer timer_;
};

void IntentOwnerRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<IntentOwner>(registrar));
}

}  // namespace

int main(int argc, char** argv) {
  return veltra::host::RunApplication(argc, argv, {IntentOwnerRegisterWithRegistrar});
}
