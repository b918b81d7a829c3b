// Many connections in one event loop.
#ifndef RUNTIME_MANAGER_TESTS_MANY_CONNECTIONS_H
#define RUNTIME_MANAGER_TESTS_MANY_CONNECTIONS_H

#include <RuntimeManager/TaskMessaging.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <memory>
#include <vector>

#include "kit.h"

namespace kit {

class ManyConnections : public ServerEnd {
 protected:
  void TearDown() override {
    Close();
    ServerEnd::TearDown();
  }
  void Open(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      ends_.push_back(std::make_unique<TaskMessaging>(PathOf("server")));
      peers_.push_back(::accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC));
    }
  }
  // All but the first few.
  void Close(std::size_t kept = 0) {
    ends_.resize(kept);
    for (std::size_t i = kept; i < peers_.size(); ++i) {
      ::close(peers_[i]);
    }
    peers_.resize(kept);
  }

  std::vector<std::unique_ptr<TaskMessaging>> ends_;
  std::vector<int> peers_;
};

}  // namespace kit

#endif  // RUNTIME_MANAGER_TESTS_MANY_CONNECTIONS_H
