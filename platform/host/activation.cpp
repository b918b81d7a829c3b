#include "activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QtCore/QFileInfo>
#include <cerrno>
#include <cstdlib>

#include "socket_name.h"
#include "support.h"

namespace RuntimeManager::host {
namespace {

// 0 for a listening Unix socket; ENOTSOCK for anything else; another error when the system does not tell.
int WhyNotListening(int descriptor) {
  int listening = 0;
  int domain = 0;
  socklen_t size = sizeof(int);
  if (::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 ||
      ::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0) {
    return errno;
  }
  return domain == AF_UNIX && listening != 0 ? 0 : ENOTSOCK;
}

// Variables that were meant for another process, a parent's for instance, say nothing to this one.
bool IsForThisProcess(const char* variable) {
  return Variable(variable) == QByteArray::number(::getpid());
}

bool IsActivated() { return IsForThisProcess("LISTEN_PID") && Variable("LISTEN_FDS").toInt() >= 1; }

bool IsSocket(int descriptor) {
  struct stat facts {};
  return ::fstat(descriptor, &facts) == 0 && S_ISSOCK(facts.st_mode);
}

// The file that the socket was bound to.
QString BoundName(int socket) {
  sockaddr_un address{};
  socklen_t size = sizeof(address) - 1;
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return {};
  }
  return QString::fromUtf8(address.sun_path).section('/', -1);
}

void WarnOfSocket(const QString& task, int error_number) {
  const bool is_another_thing = error_number == ENOTSOCK || error_number == EBADF;
  Warn(QString("the task '%1': LISTEN_FDS promises a socket as descriptor %2, but %3: messages "
               "cannot be served")
           .arg(task)
           .arg(kActivationSocket)
           .arg(is_another_thing ? "that is no listening Unix socket"
                                 : "it cannot be examined: " + ErrnoText(error_number)));
}

int TakeSocket(const QString& task) {
  if (!IsActivated()) {
    return -1;
  }
  const int error_number = WhyNotListening(kActivationSocket);
  if (error_number != 0) {
    WarnOfSocket(task, error_number);
    AbandonActivationSocket();
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
  if (IsSocket(kActivationSocket) && ::dup3(STDIN_FILENO, kActivationSocket, O_CLOEXEC) < 0) {
    ::close(kActivationSocket);
  }
}

bool IsTaskOfRuntimeManager() {
  const bool has_socket = IsActivated() && WhyNotListening(kActivationSocket) == 0 &&
                          IsSocketName(BoundName(kActivationSocket));
  return has_socket || IsForThisProcess(kTaskVariable);
}

}  // namespace RuntimeManager::host
