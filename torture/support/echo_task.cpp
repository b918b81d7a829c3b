// The task "echoing", of nothing but system calls: sends back what it receives, and leaves when a
// message says so.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string_view>

namespace {

constexpr int kListeningSocket = 3;  // as socket activation has it
constexpr int kLeft = 7;             // the exit status

bool WriteAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (written < 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// Until the other end goes.
void Serve(int socket) {
  std::array<char, 65536> buffer{};
  ssize_t read = 0;
  while ((read = ::read(socket, buffer.data(), buffer.size())) > 0) {
    const std::string_view bytes(buffer.data(), static_cast<std::size_t>(read));
    if (bytes.find("leave") != std::string_view::npos) {
      std::exit(kLeft);
    }
    if (!WriteAll(socket, bytes)) {
      return;
    }
  }
}

}  // namespace

// Its starter ends it.
int main() {
  for (;;) {
    const int socket = ::accept(kListeningSocket, nullptr, nullptr);
    if (socket < 0) {
      return EXIT_FAILURE;
    }
    Serve(socket);
    ::close(socket);
  }
}
