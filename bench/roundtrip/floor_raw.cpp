// Two processes and a blocking socket pair, nothing else.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>

#include "floor.h"
#include "measure.h"

namespace bench {
namespace {

constexpr std::size_t kMessage = 64;
constexpr std::size_t kBuffer = std::size_t{64} << 10U;
constexpr char kRaw[] = "1 raw socketpair 64 B";

[[noreturn]] void BecomeChild(int socket, char** arguments) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (socket == kChildFd) {
    ::fcntl(kChildFd, F_SETFD, 0);
  } else {
    ::dup2(socket, kChildFd);
  }
  ::execv("/proc/self/exe", arguments);
  ::_exit(EXIT_FAILURE);
}

}  // namespace

Child::Child(const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {"bench_floors", "--child"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(all.size() + 1);
  for (std::string& argument : all) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    Die("socketpair");
  }
  process_ = ::fork();
  if (process_ < 0) {
    Die("fork");
  }
  if (process_ == 0) {
    BecomeChild(ends[1], pointers.data());
  }
  ::close(ends[1]);
  socket_ = ends[0];
}

Child::~Child() {
  ::close(socket_);
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

bool ReadAll(int socket, void* data, std::size_t size) {
  auto* to = static_cast<char*>(data);
  while (size > 0) {
    const ssize_t count = ::read(socket, to, size);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return false;
    }
    to += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

bool WriteAll(int socket, const void* data, std::size_t size) {
  const auto* from = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t count = ::write(socket, from, size);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return false;
    }
    from += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

std::string Beside(const std::string& program) {
  std::array<char, PATH_MAX> path{};
  const ssize_t size = ::readlink("/proc/self/exe", path.data(), path.size());
  if (size <= 0) {
    Die("/proc/self/exe");
  }
  const std::string self(path.data(), static_cast<std::size_t>(size));
  return self.substr(0, self.rfind('/') + 1) + program;
}

int RunRawChild(const std::string& mode, std::size_t size) {
  std::vector<char> buffer(size);
  if (mode == "whole") {
    while (ReadAll(kChildFd, buffer.data(), size) && WriteAll(kChildFd, buffer.data(), size)) {
    }
    return 0;
  }
  while (true) {  // whatever has arrived, many messages at a time
    const ssize_t count = ::read(kChildFd, buffer.data(), size);
    if (count <= 0) {
      return 0;
    }
    if (!WriteAll(kChildFd, buffer.data(), static_cast<std::size_t>(count))) {
      return 0;
    }
  }
}

void MeasureRawLatency() {
  const Child child({"whole", std::to_string(kMessage)});
  std::array<char, kMessage> message{};
  LatencyRun run(kWarmup, kRoundTrips, {child.Process()});
  do {
    run.Start();
    if (!WriteAll(child.Socket(), message.data(), kMessage)) {
      Die("write");
    }
    if (!ReadAll(child.Socket(), message.data(), kMessage)) {
      Die("read");
    }
  } while (run.Stop());
  run.Report({"A", CaseName("round trip"), kRaw});
}

// One write for all free places of the window, as a buffered transport would do.
void MeasureRawPipeline() {
  const Child child({"stream", std::to_string(kBuffer)});
  std::vector<char> buffer(kBuffer);
  constexpr std::size_t kMore = 5;  // it takes next to no time
  PipelineRun run(kPipelined * kMore, kWindow, {child.Process()});
  std::size_t arrived = 0;
  while (!run.IsFinished()) {
    std::size_t count = 0;
    for (; run.MaySend(); run.OnSent()) {
      ++count;
    }
    if (!WriteAll(child.Socket(), buffer.data(), count * kMessage)) {
      Die("write");
    }
    const ssize_t size = ::read(child.Socket(), buffer.data(), buffer.size());
    if (size <= 0) {
      Die("read");
    }
    for (arrived += static_cast<std::size_t>(size); arrived >= kMessage; arrived -= kMessage) {
      run.OnReceived();
    }
  }
  run.Report({"B", CaseName("pipelined x64"), std::string(kRaw) + ", coalesced"});
}

void MeasureRawLarge() {
  for (const LargeCase& large : kLargeCases) {
    const Child child({"whole", std::to_string(large.bytes)});
    const std::vector<char> out(large.bytes, 'x');
    std::vector<char> in(large.bytes);
    LatencyRun run(large.warmup, large.count, {child.Process()});
    do {
      run.Start();
      if (!WriteAll(child.Socket(), out.data(), out.size())) {
        Die("write");
      }
      if (!ReadAll(child.Socket(), in.data(), in.size())) {
        Die("read");
      }
    } while (run.Stop());
    run.Report({"C", CaseName(large), "1 raw socketpair"});
  }
}

}  // namespace bench
