// Intents, which are registered through the C interface and invoked through the runtime manager. The
// invoker and the owner of the intent are in one process, so that memory fails for both.
#include <RuntimeManager/IntentsInvoker.h>
#include <cw/encodable_value.h>
#include <quarn/buffer.h>
#include <tarv/tarv_capi.h>

#include <QJsonObject>
#include <string>
#include <utility>
#include <vector>

#include "failing_memory.h"
#include "scenario.h"

namespace tarv::torture {
namespace {

using RuntimeManager::Error;
using RuntimeManager::IntentsInvoker;

// What a registration belongs to: it stays as long as the process.
struct Registration {
  int invocations = 0;
  int releases = 0;
};

// Answers at once.
void OnIntent(void* user_data, TARVReplyIntentSlot* reply) {
  ++static_cast<Registration*>(user_data)->invocations;
  static const quarn::Buffer kAnswer =
      cw::EncodableValue(cw::EncodableMap{{"answer", 7}}).Serialize();
  const auto release = [reply] { reply->release(reply->user_data); };
  try {
    reply->callback(reply->user_data, kAnswer.GetData(), kAnswer.GetSize());
  } catch (...) {
    release();
    throw;
  }
  release();
}

void OnRelease(void* user_data) { ++static_cast<Registration*>(user_data)->releases; }

class Intents : public Scenario {
 public:
  explicit Intents(Loop& loop) : Scenario(loop) {
    TARVProcTable root{};
    TARVProcTableLoad(&root, sizeof(root));
    root.IntentManagerProcTableLoad(&table_, sizeof(table_));
    intents_ = root.GetIntentManager(root.Initialize());
    QObject::connect(&invoker_, &IntentsInvoker::replyReceived, &invoker_,
                     [this](const QJsonObject& reply, const Error& error) {
                       const OwnMemory own;
                       invocation_->Pay();
                       is_answered_ = reply.value("answer").toInt() == 7;
                       if (error.isError()) {
                         CountError();
                       }
                     });
  }

 protected:
  // Never the same name twice: there is no way to unregister one.
  static std::string NewName() {
    static int number = 0;
    return "show" + std::to_string(++number);
  }
  static Registration& NewRegistration() {
    static auto* const all = new std::vector<std::unique_ptr<Registration>>;
    return *all->emplace_back(std::make_unique<Registration>());
  }

  // True when the library has the slot.
  bool Register(Registration& registration, const std::string& name) {
    TARVRegisterIntentSlot slot{};
    slot.size = sizeof(slot);
    slot.callback = &OnIntent;
    slot.release = &OnRelease;
    slot.user_data = &registration;
    bool is_taken = false;
    Try([&] {
      is_taken = table_.RegisterIntent(intents_, name.c_str(), &slot) == QUARN_RESULT_SUCCESS;
    });
    return is_taken;
  }

  void Invoke(const std::string& name) {
    is_answered_ = false;
    invocation_ = Owe();
    QString intent;
    QJsonObject parameters;
    {
      const OwnMemory own;
      intent = QString::fromStdString(name);
      parameters = {{"number", 1}};
    }
    Try(invocation_, [&] { invoker_.invoke(intent, {}, parameters); });
  }

  bool IsAnswered() const { return is_answered_; }

 private:
  TARVIntentManagerProcTable table_{};
  _TARVIntentManagerRef* intents_ = nullptr;
  IntentsInvoker invoker_;
  std::shared_ptr<Debt> invocation_ = std::make_shared<Debt>();
  bool is_answered_ = false;
};

class RegisterIntent final : public Intents {
 public:
  using Intents::Intents;

  void Act() override { is_taken_ = Register(registration_, name_); }

  std::string Recover() override {
    if (registration_.releases != (is_taken_ ? 0 : 1)) {
      return "taken " + std::to_string(is_taken_ ? 1 : 0) + " time, released " +
             std::to_string(registration_.releases) + " times";
    }
    if (!is_taken_ && !Register(second_registration_, name_)) {
      return "not registered with memory";
    }
    Invoke(name_);
    if (!Settle() || !IsAnswered()) {
      return "registered, but not answered";
    }
    return registration_.invocations + second_registration_.invocations == 1 ? "" : "called twice";
  }

 private:
  const std::string name_ = NewName();
  Registration& registration_ = NewRegistration();
  Registration& second_registration_ = NewRegistration();
  bool is_taken_ = false;
};

class InvokeIntent final : public Intents {
 public:
  using Intents::Intents;

  void Begin() override {
    static const std::string kName = [this] {
      const std::string name = NewName();
      Register(NewRegistration(), name);
      return name;
    }();
    name_ = kName;
  }

  void Act() override {
    Invoke(name_);
    Settle();
  }

  std::string Recover() override {
    Settle();
    Invoke(name_);
    return Settle() && IsAnswered() ? "" : "not answered with memory";
  }

 private:
  std::string name_;
};

}  // namespace

std::unique_ptr<Scenario> MakeRegisterIntent(Loop& loop) {
  return std::make_unique<RegisterIntent>(loop);
}
std::unique_ptr<Scenario> MakeInvokeIntent(Loop& loop) {
  return std::make_unique<InvokeIntent>(loop);
}

}  // namespace tarv::torture
