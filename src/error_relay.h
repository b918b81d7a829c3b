// Hears signals that a platform's runtime manager may or may not have.
#ifndef TARV_SRC_ERROR_RELAY_H
#define TARV_SRC_ERROR_RELAY_H

#include <RuntimeManager/Error.h>

#include <QObject>
#include <functional>

namespace tarv::details {

// Belongs to the object whose signal it relays, and dies with it.
class ErrorRelay final : public QObject {
  Q_OBJECT

 public:
  using Handler = std::function<void(const RuntimeManager::Error&)>;

  // Calls `handler` directly for each `signal` (a name such as "finished") that `sender` emits with
  // an error. Without such a signal nothing is ever heard.
  static void Listen(QObject* sender, const char* signal, Handler handler);

 private:
  ErrorRelay(QObject* sender, Handler handler);

  Q_SLOT void Deliver(const RuntimeManager::Error& error);

  Handler handler_;
};

}  // namespace tarv::details

#endif  // TARV_SRC_ERROR_RELAY_H
