#include "activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QtCore/QFileInfo>
#include <cstdlib>

#include "socket_name.h"
#include "support.h"

namespace RuntimeManager::host {
namespace {

bool IsListeningSocket(int descriptor) {
  int listening = 0;
  int domain = 0;
  socklen_t size = sizeof(int);
  return ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
         domain == AF_UNIX &&
         ::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 &&
         listening != 0;
}

// Variables that were meant for another process, a parent's for instance, say nothing to this one.
bool IsForThisProcess(const char* variable) {
  return Variable(variable) == QByteArray::number(::getpid());
}

bool IsActivated() { return IsForThisProcess("LISTEN_PID") && Variable("LISTEN_FDS").toInt() >= 1; }

// The file that the socket was bound to.
QString BoundName(int socket) {
  sockaddr_un address{};
  socklen_t size = sizeof(address) - 1;
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return {};
  }
  return QString::fromUtf8(address.sun_path).section('/', -1);
}

int TakeSocket(const QString& name) {
  if (!IsActivated()) {
    return -1;
  }
  if (!IsListeningSocket(kActivationSocket)) {
    Warn(QString("the task '%1': LISTEN_FDS promises a socket as descriptor %2, but that is no "
                 "listening Unix socket: messages cannot be served")
             .arg(name)
             .arg(kActivationSocket));
    return -1;
  }
  ::fcntl(kActivationSocket, F_SETFD, FD_CLOEXEC);
  return kActivationSocket;
}

Activation Take() {
  const QString given = QString::fromUtf8(Variable("LISTEN_FDNAMES")).section(':', 0, 0);
  const QString program = QFileInfo(QFileInfo("/proc/self/exe").symLinkTarget()).fileName();
  Activation activation;
  activation.socket = TakeSocket(given.isEmpty() ? program : given);
  activation.name = activation.socket < 0 || given.isEmpty() ? program : given;
  for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES", kTaskVariable}) {
    ::unsetenv(name);
  }
  return activation;
}

}  // namespace

const Activation& GetActivation() {
  static const Activation activation = Take();
  return activation;
}

void AbandonActivationSocket() {
  if (::dup3(STDIN_FILENO, kActivationSocket, O_CLOEXEC) < 0) {
    ::close(kActivationSocket);
  }
}

bool IsTaskOfRuntimeManager() {
  const bool has_socket = IsActivated() && IsListeningSocket(kActivationSocket) &&
                          IsSocketName(BoundName(kActivationSocket));
  return has_socket || IsForThisProcess(kTaskVariable);
}

}  // namespace RuntimeManager::host
