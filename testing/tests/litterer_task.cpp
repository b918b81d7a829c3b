// The task "litterer" leaves a process behind that has its starter's standard output, and a socket.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

int main() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = std::string(std::getenv("XDG_RUNTIME_DIR")) + "/litter";
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  const int socket_descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
  if (bind(socket_descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    return EXIT_FAILURE;
  }
  for (;;) {
    pause();
  }
}
