// Intents between hostile peers, over real sockets. Bytes of any kind, in any pieces, reach the
// owner of an intent: its handler is called once a connection at most, and an invocation that was
// heard is answered once, however often the handler replies. Bytes of any kind answer an invoker: it
// reports one outcome for each invocation.
#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QTemporaryDir>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/require.h"
#include "support/script.h"

namespace {

using RuntimeManager::Error;
using RuntimeManager::IntentsInvoker;
using RuntimeManager::RuntimeDispatcher;
using tarv::fuzz::Require;
using tarv::fuzz::Script;
using Reply = std::function<void(const QJsonObject&)>;

constexpr char kOwned[] = "owned";
constexpr char kHostile[] = "hostile";

// ---- Sockets ----

class Socket {
 public:
  explicit Socket(int descriptor) : descriptor_(descriptor) {}
  ~Socket() { Close(); }
  Socket(Socket&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)),
        has_said_all_(other.has_said_all_),
        got_(std::move(other.got_)) {}
  Socket& operator=(Socket&&) = delete;

  int Descriptor() const { return descriptor_; }
  bool IsOpen() const { return descriptor_ >= 0; }
  void Close() {
    if (IsOpen()) {
      ::close(std::exchange(descriptor_, -1));
    }
  }
  void Send(std::string_view bytes) const {
    ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }
  void SayNoMore() {
    ::shutdown(descriptor_, SHUT_WR);
    has_said_all_ = true;
  }
  bool HasSaidAll() const { return has_said_all_; }
  // Reads what is there. True when the other side has closed.
  bool Read() {
    std::array<char, 4096> block{};
    ssize_t got = 1;
    while (got > 0) {
      got = ::recv(descriptor_, block.data(), block.size(), MSG_DONTWAIT);
      got_.append(block.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    return got == 0 || errno != EAGAIN;
  }
  const std::string& Got() const { return got_; }

 private:
  int descriptor_;
  bool has_said_all_ = false;
  std::string got_;
};

sockaddr_un AddressOf(const QString& path) {
  const QByteArray name = QFile::encodeName(path);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  Require(static_cast<std::size_t>(name.size()) < sizeof(address.sun_path), "a path that fits");
  std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
  return address;
}

// ---- The process ----

// A folder of its own for the sockets, and the event loop.
class Surroundings {
 public:
  Surroundings() {
    ::setenv("XDG_RUNTIME_DIR", QFile::encodeName(folder_.path()).constData(), 1);
    ::setenv("RUNTIME_MANAGER_INTENT_TIMEOUT", "60", 1);
    ::setenv("RUNTIME_MANAGER_MAX_MESSAGE", "2000", 1);
    RuntimeDispatcher::instance()->registerIntent(
        kOwned, [this](const QJsonObject&, const Reply& reply) { on_invoked_(reply); });
  }

  QString PathOf(const char* intent) const {
    return folder_.path() + "/runtime-manager/intents/" + intent;
  }
  void OnInvoked(std::function<void(const Reply&)> handler) { on_invoked_ = std::move(handler); }

  // Lets everything happen that is due.
  static void Turn() {
    QAbstractEventDispatcher* const loop = QAbstractEventDispatcher::instance();
    for (int i = 0; i < 100 && loop->processEvents(QEventLoop::AllEvents); ++i) {
    }
  }

 private:
  static int& Count() {
    static int count = 1;
    return count;
  }

  std::array<char, 5> name_{"fuzz"};
  std::array<char*, 2> arguments_{name_.data(), nullptr};
  QCoreApplication application_{Count(), arguments_.data()};
  QTemporaryDir folder_;
  std::function<void(const Reply&)> on_invoked_;
};

Surroundings& GetSurroundings() {
  static Surroundings surroundings;
  return surroundings;
}

template <class Condition>
void WaitFor(Condition&& condition, const char* what) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (bool holds = condition(); !holds; holds = condition()) {
    Require(std::chrono::steady_clock::now() < limit, what);
    Surroundings::Turn();
  }
}

// Pieces of what peers say to each other, and anything else.
std::string MakeBytes(Script& script) {
  constexpr std::array<std::string_view, 8> kPieces{"{\"first\":{},\"second\":{}}\n",
                                                    "{\"reply\":{}}\n",
                                                    "{\"error\":\"no\"}\n",
                                                    "{\"second\":",
                                                    "{\"a\":1}",
                                                    "}\n",
                                                    "\n",
                                                    "{\"data\":\"text\"}\n"};
  const std::size_t choice = script.Below(kPieces.size() + 3);
  if (choice < kPieces.size()) {
    return std::string(kPieces[choice]);
  }
  return choice == kPieces.size() ? std::string(script.Byte() * std::size_t{16}, 'a')
                                  : script.Text();
}

// ---- An owner and its invokers ----

class Owner {
 public:
  explicit Owner(Script& script) : script_(script) {
    GetSurroundings().OnInvoked([this](const Reply& reply) { OnInvoked(reply); });
  }

  void Run() {
    for (std::size_t left = 4 + script_.Below(60); left > 0 && script_.HasMore(); --left) {
      Step();
    }
    End();
  }

 private:
  void Step() {
    switch (script_.Below(8)) {
      case 0:
        Connect();
        break;
      case 1:
        PickSocket([](Socket& socket) { socket.SayNoMore(); });
        break;
      case 2:
        PickSocket([](Socket& socket) { socket.Close(); });
        break;
      case 3:
        Surroundings::Turn();
        break;
      case 4:
        Answer();
        break;
      default:
        PickSocket([this](Socket& socket) { socket.Send(MakeBytes(script_)); });
    }
  }

  void Connect() {
    if (sockets_.size() < 4) {
      const sockaddr_un address = AddressOf(GetSurroundings().PathOf(kOwned));
      sockets_.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      Require(::connect(sockets_.back().Descriptor(), reinterpret_cast<const sockaddr*>(&address),
                        sizeof(address)) == 0,
              "an owner is there");
    }
  }

  template <class Action>
  void PickSocket(Action&& action) {
    if (!sockets_.empty()) {
      Socket& socket = sockets_[script_.Below(sockets_.size())];
      if (socket.IsOpen()) {
        action(socket);
      }
    }
  }

  void OnInvoked(const Reply& reply) {
    Require(++calls_ <= sockets_.size(), "one call for a connection");
    if (script_.Flag()) {
      reply({{"answer", 1}});
    }
    if (script_.Flag()) {
      kept_.push_back(reply);
    }
  }

  void Answer() {
    if (kept_.empty()) {
      return;
    }
    const Reply reply = kept_[script_.Below(kept_.size())];
    if (script_.Flag()) {
      kept_.clear();
    }
    reply({{"answer", 2}});
  }

  // What has been heard is answered by now, but to those who have ended early; then everybody goes.
  void End() {
    Surroundings::Turn();
    kept_.clear();
    Surroundings::Turn();
    std::size_t answered = 0;
    std::size_t early = 0;
    for (Socket& socket : sockets_) {
      early += !socket.IsOpen() || socket.HasSaidAll() || socket.Read() ? 1 : 0;
      answered += CheckAnswer(socket.Got()) ? 1 : 0;
    }
    Require(answered <= calls_, "no answer without a call");
    Require(answered + early >= calls_, "every call is answered");
    for (Socket& socket : sockets_) {
      socket.SayNoMore();
      WaitFor([&socket] { return !socket.IsOpen() || socket.Read(); }, "a connection ends");
    }
  }

  // One line at most: a reply, or an error.
  bool CheckAnswer(const std::string& got) {
    if (got.empty()) {
      return false;
    }
    Require(got.find('\n') == got.size() - 1, "one answer for a connection");
    const QJsonObject answer = QJsonDocument::fromJson(QByteArray::fromStdString(got)).object();
    Require(answer.size() == 1, "an answer is one thing");
    Require(answer.value("reply").isObject() || answer.value("error").isString(), "an answer");
    return true;
  }

  Script& script_;
  std::vector<Socket> sockets_;
  std::vector<Reply> kept_;
  std::size_t calls_ = 0;
};

// ---- An invoker and its owners ----

class Invoker {
 public:
  explicit Invoker(Script& script) : script_(script) {
    const sockaddr_un address = AddressOf(GetSurroundings().PathOf(kHostile));
    ::unlink(address.sun_path);
    Require(::bind(listening_.Descriptor(), reinterpret_cast<const sockaddr*>(&address),
                   sizeof(address)) == 0 &&
                ::listen(listening_.Descriptor(), 8) == 0,
            "a hostile owner listens");
    QObject::connect(invoker_.get(), &IntentsInvoker::replyReceived, invoker_.get(),
                     [this](const QJsonObject&, const Error&) { OnReply(); });
  }

  void Run() {
    for (std::size_t left = 4 + script_.Below(60); left > 0 && script_.HasMore(); --left) {
      Step();
    }
    End();
  }

 private:
  void Step() {
    switch (script_.Below(8)) {
      case 0:
        Invoke();
        break;
      case 1:
        Accept();
        break;
      case 2:
        PickSocket([](Socket& socket) { socket.SayNoMore(); });
        break;
      case 3:
        PickSocket([](Socket& socket) { socket.Close(); });
        break;
      case 4:
        Surroundings::Turn();
        break;
      default:
        PickSocket([this](Socket& socket) { socket.Send(MakeBytes(script_)); });
    }
  }

  // Names of nobody, and names that are none, are refused by an outcome, too. What opens URIs would
  // start a program.
  void Invoke() {
    if (invocations_ == 8) {
      return;
    }
    ++invocations_;
    std::string name = script_.Below(4) == 0 ? script_.Text() : kHostile;
    if (name == "OpenURI") {
      name = "openURI";
    }
    invoker_->invoke(QString::fromStdString(name), {{"a", QString::fromStdString(script_.Text())}},
                     {});
  }

  void Accept() {
    const int socket =
        ::accept4(listening_.Descriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket >= 0) {
      sockets_.emplace_back(socket);
    }
  }

  template <class Action>
  void PickSocket(Action&& action) {
    if (!sockets_.empty()) {
      Socket& socket = sockets_[script_.Below(sockets_.size())];
      if (socket.IsOpen()) {
        action(socket);
      }
    }
  }

  // The handler goes on at times.
  void OnReply() {
    Require(++outcomes_ <= invocations_, "one outcome for an invocation");
    if (script_.HasMore() && script_.Below(8) == 0) {
      Invoke();
    }
  }

  void End() {
    if (script_.Below(8) == 0) {
      invoker_.reset();
      const std::size_t outcomes = outcomes_;
      Surroundings::Turn();
      Require(outcomes_ == outcomes, "an invoker that is gone tells nothing");
      return;
    }
    WaitFor(
        [this] {
          Accept();
          sockets_.clear();
          return outcomes_ == invocations_;
        },
        "every invocation has an outcome");
  }

  Script& script_;
  Socket listening_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  std::vector<Socket> sockets_;
  std::size_t invocations_ = 0;
  std::size_t outcomes_ = 0;
  std::unique_ptr<IntentsInvoker> invoker_ = std::make_unique<IntentsInvoker>(nullptr);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  GetSurroundings();
  Script script(data, size);
  if (script.Flag()) {
    Owner(script).Run();
  } else {
    Invoker(script).Run();
  }
  return 0;
}
