// A descriptor with one owner.
#ifndef RUNTIME_MANAGER_HOST_UNIQUE_FD_H
#define RUNTIME_MANAGER_HOST_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace RuntimeManager::host {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Reset(std::exchange(other.fd_, -1));
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }

  int Get() const { return fd_; }
  bool IsValid() const { return fd_ >= 0; }
  // Gives the descriptor to somebody else, who closes it.
  int Release() { return std::exchange(fd_, -1); }
  void Reset(int fd = -1) {
    // On Linux the descriptor is gone whatever close() says; a second try could hit a stranger's.
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_UNIQUE_FD_H
