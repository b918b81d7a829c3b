// The least that a Qt process does before it is connected: bench_bare_qt SOCKET.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QTimer>
#include <cstdlib>
#include <cstring>

namespace {

// Connects, and leaves when the other side does.
void ConnectAndWait(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    std::exit(EXIT_FAILURE);
  }
  char byte = 0;
  std::exit(::read(socket, &byte, 1) == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  if (argc != 2) {
    return EXIT_FAILURE;
  }
  QTimer::singleShot(0, &application, [path = argv[1]] { ConnectAndWait(path); });
  return QCoreApplication::exec();
}
