#include "socket_writes.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

#include "support.h"

namespace RuntimeManager::host {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Borrowed lines longer than this wait for a slow reader, for as long as copying them would take: a
// millisecond for each mebibyte, and two at most without progress.
constexpr std::size_t kWorthWaiting = std::size_t{256} << 10U;
constexpr milliseconds kCopyTime{1};
constexpr milliseconds kReaderPatience{2};

// Lines up to this size go as one piece: to gather a line's parts takes the system longer than the
// copy takes.
constexpr std::size_t kOnePiece = 512;

ssize_t Send(int socket, const OutLine& line) {
  if (line.Size() > kOnePiece) {
    auto parts = line.Gather();
    return SendParts(socket, parts.data(), parts.size());
  }
  std::array<char, kOnePiece> bytes;
  const auto size = static_cast<std::size_t>(line.CopyTo(bytes.data()) - bytes.data());
  return RetryOnEintr([socket, &bytes, size] {
    return ::send(socket, bytes.data(), size, MSG_NOSIGNAL | MSG_DONTWAIT);
  });
}

bool IsWorthWaiting(const OutLine& line) {
  return line.IsBorrowed() && line.Size() >= kWorthWaiting;
}

}  // namespace

ssize_t SendParts(int socket, iovec* parts, std::size_t count) {
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = count;
  return RetryOnEintr(
      [socket, &message] { return ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT); });
}

bool WaitForRoom(int socket, Clock::time_point until) {
  const auto left = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
  pollfd writable{socket, POLLOUT, 0};
  return left > 0 && ::poll(&writable, 1, static_cast<int>(left)) == 1 &&
         writable.revents == POLLOUT;
}

void SendPatiently(int socket, OutLine* line) {
  std::optional<Clock::time_point> until;
  while (line->Size() > 0) {
    const ssize_t sent = Send(socket, *line);
    if (sent > 0) {
      line->Skip(static_cast<std::size_t>(sent));
      continue;
    }
    if (errno != EAGAIN || !IsWorthWaiting(*line)) {
      return;
    }
    const auto now = Clock::now();
    until = until.value_or(now + kCopyTime * (line->Size() >> 20U));
    if (!WaitForRoom(socket, std::min(*until, now + kReaderPatience))) {
      return;
    }
  }
}

}  // namespace RuntimeManager::host
