// Eight threads that send, and the account of what arrives: for the tests and for their tasks.
#ifndef RUNTIME_MANAGER_TESTS_CROWD_H
#define RUNTIME_MANAGER_TESTS_CROWD_H

#include <RuntimeManager/TaskMessaging.h>

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <array>
#include <atomic>
#include <thread>
#include <vector>

namespace kit {

constexpr int kCrowd = 8;
// Each of the five texts of the helper's flood: more than a socket holds, and all together little
// enough for a busy machine to take within the two seconds that an exit waits.
constexpr int kFloodText = 300 << 10;

// Texts that go each way: half of TARV_TEST_MESSAGES. Tasks have the variable of their starter.
inline int TextsEachWay() {
  const QByteArray wanted = qgetenv("TARV_TEST_MESSAGES");
  const int texts = wanted.isEmpty() ? 50'000 : wanted.toInt() / 2;
  return texts / kCrowd * kCrowd;
}

// What each thread sends. Most texts are short, some are long.
struct Share {
  int texts = TextsEachWay() / kCrowd;
  int long_every = 50;
  int long_size = 20000;
};

// The text number `number` of a thread; some hold what JSON escapes.
inline QByteArray TextOf(int thread, int number, const Share& share) {
  QByteArray text = QByteArray::number(thread) + ':' + QByteArray::number(number) + ':';
  if (number % share.long_every == 0) {
    text += QByteArray(share.long_size, static_cast<char>('a' + thread));
  }
  return number % 7 == 0 ? text + '"' : text;
}

// Sends from eight threads at once, by both functions. To be joined before the messaging goes.
class Crowd {
 public:
  explicit Crowd(RuntimeManager::TaskMessaging* messaging, const Share& share = {}) {
    for (int thread = 0; thread < kCrowd; ++thread) {
      threads_.emplace_back([this, messaging, thread, share] {
        for (int number = 0; number < share.texts && !stops_; ++number) {
          Send(messaging, TextOf(thread, number, share), number % 3 == 0);
        }
        ++done_;
      });
    }
  }
  ~Crowd() { Stop(); }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  bool IsDone() const { return done_ == kCrowd; }
  void Join() {
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }
  void Stop() {
    stops_ = true;
    Join();
  }

 private:
  static void Send(RuntimeManager::TaskMessaging* messaging, const QByteArray& text,
                   bool as_object) {
    if (as_object) {
      messaging->sendMessage({{"data", QString::fromUtf8(text)}});
      return;
    }
    messaging->sendData(text);
  }

  std::atomic<bool> stops_{false};
  std::atomic<int> done_{0};
  std::vector<std::thread> threads_;
};

// What has arrived of a crowd.
class Tally {
 public:
  explicit Tally(const Share& share = {}) : share_(share) {}
  // Listens to a messaging on its thread.
  void Watch(RuntimeManager::TaskMessaging* messaging) {
    using RuntimeManager::TaskMessaging;
    QObject::connect(messaging, &TaskMessaging::dataReceived, messaging,
                     [this](const QByteArray& text) { Add(text); });
    QObject::connect(
        messaging, &TaskMessaging::messageReceived, messaging,
        [this](const QJsonObject& message) { Add(message["data"].toString().toUtf8()); });
  }
  void Add(const QByteArray& text) {
    const int thread = text.left(text.indexOf(':')).toInt();
    if (thread < 0 || thread >= kCrowd) {
      faults_ += "a stranger: " + text.left(80) + '\n';
      return;
    }
    int& next = next_[static_cast<std::size_t>(thread)];
    if (text != TextOf(thread, next, share_)) {
      faults_ += "in place of number " + QByteArray::number(next) + ": " + text.left(80) + '\n';
    }
    ++next;
    ++count_;
  }
  bool IsWhole() const { return count_ == kCrowd * share_.texts; }
  int Count() const { return count_; }
  // Empty when every thread's texts came unharmed and in their order.
  QByteArray Faults() const { return faults_.left(2000); }

 private:
  const Share share_;
  std::array<int, kCrowd> next_{};
  int count_ = 0;
  QByteArray faults_;
};

}  // namespace kit

#endif  // RUNTIME_MANAGER_TESTS_CROWD_H
