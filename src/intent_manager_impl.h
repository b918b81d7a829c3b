// The service's intent manager: opens URIs and registers intents.
#ifndef TARV_SRC_INTENT_MANAGER_IMPL_H
#define TARV_SRC_INTENT_MANAGER_IMPL_H

#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <quarn/object.h>
#include <tarv/tarv_capi.h>

#include <QJsonObject>
#include <QMetaObject>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

// Belongs to the thread that makes it and to its Qt event loop. Owned by the manager.
class IntentManagerImpl final : public quarn::Object<IntentManagerImpl, _TARVIntentManagerRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  using Completion = std::function<void(bool)>;
  using SendReply = std::function<void(const QJsonObject&)>;
  using Handler = std::function<void(const QJsonObject&, SendReply)>;

  explicit IntentManagerImpl(PrivateTag);
  ~IntentManagerImpl() override;

  // A registered intent manager; empty, after a log line, when it cannot be made.
  static std::shared_ptr<IntentManagerImpl> Create();

  static QuarnResult HandleLoadProcTable(TARVIntentManagerProcTable* table, std::size_t size);
  static QuarnResult HandleOpenUri(_TARVIntentManagerRef* intents, const char* uri,
                                   TARVOpenUriSlot* slot);
  static QuarnResult HandleRegisterIntent(_TARVIntentManagerRef* intents, const char* name,
                                          TARVRegisterIntentSlot* slot);

 private:
  // One request, waiting for its turn or for its reply.
  struct Reply {
    std::string name;
    QJsonObject first;
    QJsonObject second;
    Completion completion;
  };

  void OpenURI(const std::string& uri, Completion completion);
  void RegisterIntent(const std::string& name, Handler handler);
  void InvokeIntent(const std::string& name, const QJsonObject& first, const QJsonObject& second);
  static void IntentReplyHandler(_TARVIntentManagerRef* intents, const QJsonObject& reply,
                                 const RuntimeManager::Error& error);
  void CompleteFront(bool success);
  void InvokeNext();
  bool TryInvokeNext();

  std::deque<Reply> replies_;  // the front one is in flight while busy_ is set
  std::mutex mutex_;           // guards replies_ and busy_; never held while others are called
  RuntimeManager::IntentsInvoker invoker_{nullptr};
  RuntimeManager::RuntimeDispatcher* const dispatcher_;
  QMetaObject::Connection reply_connection_;
  bool busy_ = false;
};

#endif  // TARV_SRC_INTENT_MANAGER_IMPL_H
