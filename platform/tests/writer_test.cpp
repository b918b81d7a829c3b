// What becomes of a connection while a thread writes a large text to it, and waits for its reader.
#include <RuntimeManager/TaskMessaging.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QtCore/QByteArray>
#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "kit.h"

namespace {

// What the next call of sendmsg() does first, and what each does behind.
std::atomic<const std::function<void()>*> in_next_send{nullptr};
std::atomic<const std::function<void()>*> behind_sends{nullptr};

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t sendmsg(int socket, const msghdr* message,
                                                                  int flags) {
  using Call = ssize_t (*)(int, const msghdr*, int);
  static const auto call = reinterpret_cast<Call>(::dlsym(RTLD_NEXT, "sendmsg"));
  if (const auto* const first = in_next_send.exchange(nullptr)) {
    (*first)();
  }
  const ssize_t size = call(socket, message, flags);
  const int error_number = errno;
  if (const auto* const then = behind_sends.load()) {
    (*then)();
  }
  errno = error_number;
  return size;
}

namespace kit {
namespace {

// Has something done by this program's sendmsg(), for a scope.
class SendHook {
 public:
  using Place = std::atomic<const std::function<void()>*>;
  SendHook(Place& place, std::function<void()> what) : place_(place), what_(std::move(what)) {
    place_ = &what_;
  }
  ~SendHook() { place_ = nullptr; }
  SendHook(const SendHook&) = delete;
  SendHook& operator=(const SendHook&) = delete;

 private:
  Place& place_;
  const std::function<void()> what_;
};

constexpr int kLarge = 32 << 20;

// Reads on a thread of its own until so much has come: slowly, but so that a writer of a large text
// goes on waiting for it.
class SlowReader {
 public:
  SlowReader(int peer, int size) : peer_(peer), size_(size), thread_([this] { Read(); }) {}
  ~SlowReader() {
    ::shutdown(peer_, SHUT_RDWR);
    thread_.join();
    ::close(peer_);
  }
  SlowReader(const SlowReader&) = delete;
  SlowReader& operator=(const SlowReader&) = delete;

  // How many bytes have come.
  int Count() const { return count_; }
  bool WaitUntilDone() const {
    return RunUntilStuck([this] { return is_done_.load(); }, [this] { return count_.load(); });
  }
  // Once it is done.
  const QByteArray& Bytes() const { return bytes_; }

 private:
  void Read() {
    std::vector<char> piece(128 << 10);
    ssize_t size = 1;
    while (count_ < size_ && size > 0) {
      size = ::recv(peer_, piece.data(), piece.size(), 0);
      bytes_.append(piece.data(), static_cast<int>(size));
      count_ = bytes_.size();
      ::usleep(500);
    }
    is_done_ = true;
  }

  const int peer_;
  const int size_;
  QByteArray bytes_;
  std::atomic<int> count_{0};
  std::atomic<bool> is_done_{false};
  std::thread thread_;
};

// Sends a large text on a thread of its own.
class LargeWriter {
 public:
  explicit LargeWriter(TaskMessaging* messaging)
      : thread_([this, messaging] {
          const QByteArray text(kLarge, 'a');
          messaging->sendData(text);
          is_writing_ = false;
        }) {}
  ~LargeWriter() { Join(); }
  LargeWriter(const LargeWriter&) = delete;
  LargeWriter& operator=(const LargeWriter&) = delete;

  bool IsWriting() const { return is_writing_; }
  void Join() {
    if (thread_.joinable()) {
      thread_.join();
    }
  }

 private:
  std::atomic<bool> is_writing_{true};
  std::thread thread_;
};

class Writer : public ServerEnd {
 protected:
  // A busy machine may keep the reader from reading, and the writer then gives up: once more.
  static constexpr int kRounds = 30;

  // A connection that is served.
  int ConnectTo(TaskMessaging* messaging) {
    const int peer = Connect();
    Inbox inbox(messaging);
    SendLine(peer, "{}");
    EXPECT_TRUE(inbox.WaitFor(1));
    return peer;
  }
  static QByteArray LineOf(const QByteArray& text) { return "{\"data\":\"" + text + "\"}\n"; }
  // Waits until the reader has got on, if the writer still waits for that.
  static void Advance(const SlowReader& reader, const LargeWriter& writer) {
    const int before = reader.Count();
    while (reader.Count() == before && writer.IsWriting()) {
      std::this_thread::yield();
    }
  }
};

// While one thread is in the middle of a send, no other waits for it. What others send meanwhile comes
// behind the whole text, of which the socket has taken a part.
TEST_F(Writer, LetsOthersSendMeanwhile) {
  const QByteArray text(1 << 20, 'a');
  const QByteArray other(2000, 'b');
  TaskMessaging messaging(listening_);
  SlowReader reader(ConnectTo(&messaging), LineOf(text).size() + LineOf(other).size());
  std::thread another;
  std::atomic<bool> has_sent{false};
  bool has_sent_meanwhile = false;
  const SendHook meanwhile(in_next_send, [&] {
    another = std::thread([&messaging, &other, &has_sent] {
      messaging.sendData(other);
      has_sent = true;
    });
    for (int i = 0; i < 20'000 && !has_sent; ++i) {
      ::usleep(1000);
    }
    has_sent_meanwhile = has_sent;
  });
  messaging.sendData(text);
  another.join();
  EXPECT_TRUE(has_sent_meanwhile);
  EXPECT_TRUE(reader.WaitUntilDone());
  EXPECT_TRUE(reader.Bytes() == LineOf(text) + LineOf(other))
      << "the other one begins at byte " << reader.Bytes().indexOf('b');
}

// The peer reads so fast that there is always room: a turn that ends has not ended because of that.
TEST_F(Writer, GoesOnUntilEverythingIsSent) {
  constexpr int kTexts = 5;
  const QByteArray text(1 << 20, 'a');
  TaskMessaging messaging(listening_);
  for (int i = 0; i < kTexts; ++i) {
    messaging.sendData(text);
  }
  const int peer = Connect();
  QByteArray read;
  const SendHook drain(behind_sends, [&read, peer] { ReadMore(peer, &read); });
  const int wanted = kTexts * LineOf(text).size();
  EXPECT_TRUE(RunUntil([&read, wanted] { return read.size() == wanted; }));
  EXPECT_TRUE(read == LineOf(text).repeated(kTexts));
  ::close(peer);
}

// Descriptors that are opened once a connection has ended.
class NewSockets {
 public:
  NewSockets() {
    for (auto& pair : pairs_) {
      EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
    }
  }
  ~NewSockets() {
    for (const auto& pair : pairs_) {
      ::close(pair[0]);
      ::close(pair[1]);
    }
  }
  NewSockets(const NewSockets&) = delete;
  NewSockets& operator=(const NewSockets&) = delete;

  bool HaveGotSomething() const {
    char byte = 0;
    for (const auto& pair : pairs_) {
      if (::recv(pair[0], &byte, 1, MSG_DONTWAIT) > 0 ||
          ::recv(pair[1], &byte, 1, MSG_DONTWAIT) > 0) {
        return true;
      }
    }
    return false;
  }

 private:
  std::array<std::array<int, 2>, 4> pairs_{};
};

// The peer hangs up, but reads on. The socket closes when its writer is done with it, and no later.
TEST_F(Writer, SendsNothingToADescriptorThatTakesTheNumberOfItsOwn) {
  bool was_writing = false;
  for (int round = 0; round < kRounds && !was_writing && !HasFailure(); ++round) {
    const auto sockets = [] { return OpenDescriptors().filter("socket:").size(); };
    TaskMessaging messaging(listening_);
    const auto sockets_before = sockets();
    const int peer = ConnectTo(&messaging);
    SlowReader reader(peer, kLarge);
    LargeWriter writer(&messaging);
    Advance(reader, writer);
    std::unique_ptr<NewSockets> others;
    QObject::connect(&messaging, &TaskMessaging::disconnected, [&] {
      others = std::make_unique<NewSockets>();
      was_writing = writer.IsWriting();
    });
    ::shutdown(peer, SHUT_WR);
    ASSERT_TRUE(RunUntil([&others] { return others != nullptr; }));
    writer.Join();
    EXPECT_FALSE(others->HaveGotSomething());
    others.reset();
    EXPECT_EQ(sockets(), sockets_before + 1) << "the peer's own is left";
  }
  if (!was_writing) {
    GTEST_SKIP() << "the machine is too busy for two threads at once";
  }
}

}  // namespace
}  // namespace kit
