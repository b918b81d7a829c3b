// The program that opens URIs when nobody owns the intent "OpenURI".
#ifndef RUNTIME_MANAGER_HOST_URI_OPENER_H
#define RUNTIME_MANAGER_HOST_URI_OPENER_H

#include <RuntimeManager/Error.h>

#include <QtCore/QString>
#include <QtCore/QTimer>
#include <functional>
#include <memory>

#include "child_process.h"

namespace RuntimeManager::host {

// No error when `uri` is a valid absolute URI of plain ASCII: a scheme, a colon, and something.
Error CheckUri(const QString& uri);

// Runs RUNTIME_MANAGER_URI_HANDLER, or xdg-open, with one URI. Belongs to the thread that made it;
// the program runs on when the object is gone.
class UriOpener {
 public:
  // `done` is called once, from the event loop: without error when the program exits with status 0,
  // or is still at work after some seconds.
  UriOpener(const QString& uri, std::function<void(const Error&)> done);
  ~UriOpener();
  UriOpener(const UriOpener&) = delete;
  UriOpener& operator=(const UriOpener&) = delete;

 private:
  explicit UriOpener(std::function<void(const Error&)> done);

  Error Start(const QString& uri);
  void OnEnded(const ChildEnd& end);
  void Finish(const Error& error);

  QString program_;  // as it was chosen
  QByteArray path_;
  std::function<void(const Error&)> done_;
  std::shared_ptr<ChildProcess> process_;
  QTimer settled_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_URI_OPENER_H
