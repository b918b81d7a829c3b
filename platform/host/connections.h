// How connections come to be: accepting them, and asking for one.
#ifndef RUNTIME_MANAGER_HOST_CONNECTIONS_H
#define RUNTIME_MANAGER_HOST_CONNECTIONS_H

#include <RuntimeManager/Error.h>
#include <sys/types.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonObject>
#include <QtCore/QString>
#include <QtCore/QTimer>
#include <functional>
#include <memory>

#include "unique_fd.h"

namespace RuntimeManager::host {

// No error when the peer of a connected socket belongs to this process's user.
Error CheckPeer(int socket);

// "process 12", as SO_PEERCRED numbers it: 0 is a process that cannot be seen from here.
QString ProcessText(pid_t process);

// Whether the peer is the process that was the first to connect to the listening socket. The first
// call for a listening socket says which that is; a refused process is warned about. One that cannot
// be seen from here, because its pid namespace is another, is let in as the first, but no second
// time. Any thread.
bool IsOfFirstProcess(int listening, int socket);

// For the record: the other process of a connection, where the system tells. The connection that a
// starter makes to a socket of its own tells only the starter.
QJsonObject ConnectionFacts(int socket);

// Accepts connections of this user on a listening socket; those of other users are closed at once.
// It goes on when the process is short of descriptors or memory: it waits and tries again. Belongs
// to the thread that made it; it may be destroyed from inside its own callback.
class Acceptor {
 public:
  // Keeps a duplicate of `listening`. `on_connection` gets connected, non-blocking sockets. `what`
  // is served there, for the log: "the task 'x'".
  Acceptor(QString what, int listening, std::function<void(UniqueFd)> on_connection);
  // The same for a process whose work waits for the first connection: when none could be accepted for
  // five seconds although one was there, `on_failure` is called, and nothing more is accepted.
  Acceptor(QString what, int listening, std::function<void(UniqueFd)> on_connection,
           std::function<void(const Error&)> on_failure);
  ~Acceptor();
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

  // Why it cannot accept at all; no error when it can.
  Error GetError() const;
  // Its own descriptor of the listening socket.
  int GetSocket() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// Connects, and tries again for a while as long as the listener's queue is full. Belongs to the
// thread that made it; it may be destroyed from inside its own callback.
class Dialer {
 public:
  // Connects once without blocking; EAGAIN asks for another try.
  using Connect = std::function<UniqueFd(int* error_number)>;
  // A connected socket of a peer of this user; or an invalid one, an error, and its number if it
  // has one.
  using Done = std::function<void(UniqueFd, const Error&, int error_number)>;

  // `what` names the other side. `done` is called once: from inside the constructor when
  // the connection is there at once, else from the event loop.
  Dialer(QString what, Connect connect, Done done);
  ~Dialer();
  Dialer(const Dialer&) = delete;
  Dialer& operator=(const Dialer&) = delete;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_CONNECTIONS_H
