// Two processes with a Qt event loop each. A message is a length of four bytes and that many more.
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <QCoreApplication>
#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSocketNotifier>
#include <QTemporaryDir>
#include <QtEndian>
#include <array>
#include <cerrno>
#include <functional>
#include <memory>

#include "floor.h"
#include "measure.h"

namespace bench {
namespace {

constexpr int kHead = 4;
constexpr char kNotifier[] = "2b Qt QSocketNotifier + fd, 200 B opaque";
constexpr char kLocal[] = "2 Qt QLocalSocket, 200 B opaque";
constexpr char kEnvelope[] = "3 Qt QLocalSocket + QJson envelope";

class Transport {
 public:
  virtual ~Transport() = default;
  virtual void Queue(const QByteArray& body) = 0;  // goes out with Flush()
  virtual void Flush() = 0;
  std::function<void(const QByteArray&)> on_message;
  std::function<void()> on_batch_end;  // all that had arrived was handed over
};

std::array<char, kHead> HeadOf(const QByteArray& body) {
  std::array<char, kHead> head{};
  qToBigEndian(static_cast<quint32>(body.size()), head.data());
  return head;
}

class LocalTransport final : public Transport {
 public:
  explicit LocalTransport(QLocalSocket* socket) : socket_(socket) {
    QObject::connect(socket, &QLocalSocket::readyRead, socket, [this] { Drain(); });
  }
  void Queue(const QByteArray& body) override {
    socket_->write(HeadOf(body).data(), kHead);
    socket_->write(body);
  }
  void Flush() override { socket_->flush(); }

 private:
  bool ReadHead() {
    std::array<char, kHead> head{};
    if (socket_->bytesAvailable() < kHead) {
      return false;
    }
    socket_->read(head.data(), kHead);
    wanted_ = qFromBigEndian<quint32>(head.data());
    return true;
  }
  void Drain() {
    while (wanted_ >= 0 || ReadHead()) {
      if (socket_->bytesAvailable() < wanted_) {
        break;
      }
      const QByteArray body = socket_->read(wanted_);
      wanted_ = -1;
      on_message(body);
    }
    on_batch_end();
  }

  QLocalSocket* socket_;
  qint64 wanted_ = -1;
};

// For small messages: its writes block.
class NotifierTransport final : public Transport {
 public:
  explicit NotifierTransport(int socket)
      : socket_(socket), readable_(socket, QSocketNotifier::Read) {
    QObject::connect(&readable_, &QSocketNotifier::activated, &readable_, [this] { Drain(); });
  }
  void Queue(const QByteArray& body) override {
    out_.append(HeadOf(body).data(), kHead);
    out_.append(body);
  }
  void Flush() override {
    if (out_.isEmpty()) {
      return;
    }
    if (!WriteAll(socket_, out_.constData(), static_cast<std::size_t>(out_.size()))) {
      std::exit(0);
    }
    out_.resize(0);
  }

 private:
  void Drain() {
    std::array<char, std::size_t{64} << 10U> buffer;
    const ssize_t size = ::recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
      return;
    }
    if (size <= 0) {
      std::exit(0);
    }
    in_.append(buffer.data(), static_cast<int>(size));
    int at = 0;
    while (in_.size() - at >= kHead) {
      const auto body = static_cast<int>(qFromBigEndian<quint32>(in_.constData() + at));
      if (in_.size() - at - kHead < body) {
        break;
      }
      on_message(in_.mid(at + kHead, body));
      at += kHead + body;
    }
    in_.remove(0, at);
    on_batch_end();
  }

  int socket_;
  QSocketNotifier readable_;
  QByteArray in_;
  QByteArray out_;
};

QByteArray Wrap(const QString& text) {
  return QJsonDocument(QJsonObject{{"data", text}}).toJson(QJsonDocument::Compact);
}

QString Unwrap(const QByteArray& json) {
  QString text = QJsonDocument::fromJson(json).object().value("data").toString();
  if (text.isEmpty()) {
    Die("an envelope without text");
  }
  return text;
}

// What each side does with a body. The server answers what it got.
struct Coding {
  std::function<QByteArray()> request;                   // the client builds it
  std::function<QByteArray(const QByteArray&)> answer;   // the server takes apart and builds
  std::function<int(const QByteArray&)> size_of_answer;  // the client takes it apart
  int size;
};

Coding OpaqueCoding(const QByteArray& payload) {
  return {[payload] { return payload; }, [](const QByteArray& body) { return body; },
          [](const QByteArray& body) { return body.size(); }, payload.size()};
}

Coding EnvelopeCoding(const QByteArray& payload) {
  const QString text = QString::fromLatin1(payload);
  return {[text] { return Wrap(text); }, [](const QByteArray& body) { return Wrap(Unwrap(body)); },
          [](const QByteArray& body) { return Unwrap(body).size(); }, payload.size()};
}

// As the envelope, with the payload as bytes on both sides.
Coding Base64Coding(const QByteArray& payload) {
  const auto encode = [](const QByteArray& bytes) {
    return Wrap(QString::fromLatin1(bytes.toBase64()));
  };
  const auto decode = [](const QByteArray& body) {
    return QByteArray::fromBase64(Unwrap(body).toLatin1());
  };
  return {[payload, encode] { return encode(payload); },
          [encode, decode](const QByteArray& body) { return encode(decode(body)); },
          [decode](const QByteArray& body) { return decode(body).size(); }, payload.size()};
}

Coding CodingOf(const std::string& name, const QByteArray& payload) {
  if (name == "opaque") {
    return OpaqueCoding(payload);
  }
  return name == "envelope" ? EnvelopeCoding(payload) : Base64Coding(payload);
}

// A child and the transport to it.
struct Link {
  Link(const std::string& kind, const std::string& coding) {
    const QString path = folder.filePath("floor");
    child = std::make_unique<Child>([&]() -> std::vector<std::string> {
      if (kind == "local" && !server.listen(path)) {
        Die("listen");
      }
      return {kind, coding, path.toStdString()};
    }());
    if (kind == "local") {
      constexpr int kPatienceMs = 5000;
      if (!server.waitForNewConnection(kPatienceMs)) {
        Die("no connection");
      }
      transport = std::make_unique<LocalTransport>(server.nextPendingConnection());
    } else {
      transport = std::make_unique<NotifierTransport>(child->Socket());
    }
  }

  QTemporaryDir folder;
  QLocalServer server;
  std::unique_ptr<Child> child;
  std::unique_ptr<Transport> transport;
};

// How a case is carried: the transport, what is in a message, and what that is called.
struct Floor {
  std::string kind;
  std::string coding;
  std::string name;
};

const Floor kFloors[] = {{"notifier", "opaque", kNotifier},
                         {"local", "opaque", kLocal},
                         {"local", "envelope", kEnvelope}};

QByteArray SmallPayload(const Floor& floor) {
  constexpr int kOpaque = 200;
  constexpr int kText = 120;
  return QByteArray(floor.coding == "opaque" ? kOpaque : kText, 'A');
}

void RunLatency(const Row& row, const Floor& floor, const QByteArray& payload, std::size_t warmup,
                std::size_t count) {
  Link link(floor.kind, floor.coding);
  const Coding coding = CodingOf(floor.coding, payload);
  Transport& transport = *link.transport;
  LatencyRun run(warmup, count, {link.child->Process()});
  QEventLoop loop;
  const auto send = [&] {
    run.Start();
    transport.Queue(coding.request());
    transport.Flush();
  };
  transport.on_message = [&](const QByteArray& body) {
    if (coding.size_of_answer(body) != coding.size) {
      Die("an answer of another size");
    }
    run.Stop() ? send() : loop.quit();
  };
  transport.on_batch_end = [] {};
  send();
  loop.exec();
  run.Report(row);
}

// A window of messages that are all answered.
void RunWindow(const Row& row, const Floor& floor) {
  Link link(floor.kind, floor.coding);
  const Coding coding = CodingOf(floor.coding, SmallPayload(floor));
  Transport& transport = *link.transport;
  PipelineRun run(kPipelined, kWindow, {link.child->Process()});
  QEventLoop loop;
  const auto fill = [&] {
    for (; run.MaySend(); run.OnSent()) {
      transport.Queue(coding.request());
    }
    transport.Flush();
  };
  transport.on_message = [&](const QByteArray& body) {
    if (coding.size_of_answer(body) != coding.size) {
      Die("an answer of another size");
    }
    if (!run.OnReceived()) {
      loop.quit();
    }
  };
  transport.on_batch_end = fill;
  fill();
  loop.exec();
  run.Report(row);
}

// Batches of messages, each ended by one that is answered.
void RunOneWay(const Row& row, const Floor& floor) {
  Link link(floor.kind, floor.coding + " one way");
  const Coding coding = CodingOf(floor.coding, SmallPayload(floor));
  Transport& transport = *link.transport;
  PipelineRun run(kNotifications, kNotificationBatch, {link.child->Process()});
  QEventLoop loop;
  const auto fill = [&] {
    for (; run.MaySend(); run.OnSent()) {
      transport.Queue(coding.request());
    }
    transport.Flush();
  };
  transport.on_message = [&](const QByteArray& /*body*/) {
    bool goes_on = true;
    for (std::size_t i = 0; i < kNotificationBatch && goes_on; ++i) {
      goes_on = run.OnReceived();
    }
    goes_on ? fill() : loop.quit();
  };
  transport.on_batch_end = [] {};
  fill();
  loop.exec();
  run.Report(row);
}

// The child's answer to a body: every one, or one for a whole batch.
std::function<void(const QByteArray&)> Responder(Transport& transport, const std::string& coding) {
  const std::string one_way = " one way";
  const std::size_t at = coding.rfind(one_way);
  const Coding code = CodingOf(coding.substr(0, at), {});
  if (at == std::string::npos) {
    return [&transport, code](const QByteArray& body) { transport.Queue(code.answer(body)); };
  }
  return [&transport, code, heard = std::size_t{0}](const QByteArray& body) mutable {
    code.size_of_answer(body);
    if (++heard % kNotificationBatch == 0) {
      transport.Queue(body);
    }
  };
}

}  // namespace

// --child KIND CODING PATH
int RunQtChild(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  QLocalSocket socket;
  std::unique_ptr<Transport> transport;
  if (std::string(argv[2]) == "local") {
    QObject::connect(&socket, &QLocalSocket::disconnected, &application, &QCoreApplication::quit);
    socket.connectToServer(QString::fromLocal8Bit(argv[4]));
    transport = std::make_unique<LocalTransport>(&socket);
  } else {
    transport = std::make_unique<NotifierTransport>(kChildFd);
  }
  transport->on_message = Responder(*transport, argv[3]);
  transport->on_batch_end = [&transport] { transport->Flush(); };
  return QCoreApplication::exec();
}

void MeasureQtLatency() {
  for (const Floor& floor : kFloors) {
    RunLatency({"A", CaseName("round trip"), floor.name}, floor, SmallPayload(floor), kWarmup,
               kRoundTrips);
  }
}

void MeasureQtPipeline() {
  const std::string kase = CaseName("pipelined x64");
  for (const Floor& floor : kFloors) {
    RunWindow({"B", kase, floor.name}, floor);
  }
}

void MeasureQtNotifications() {
  for (const Floor& floor : kFloors) {
    RunOneWay({"N", CaseName("notifications, one way"), floor.name}, floor);
  }
}

void MeasureQtLarge() {
  for (const LargeCase& large : kLargeCases) {
    const QByteArray payload(static_cast<int>(large.bytes), 'x');
    RunLatency({"C", CaseName(large), "2 Qt QLocalSocket, opaque"}, {"local", "opaque", ""},
               payload, large.warmup, large.count);
    RunLatency({"C", CaseName(large), "3 Qt QLocalSocket + QJson + Base64"},
               {"local", "base64", ""}, payload, large.warmup, large.count);
  }
}

}  // namespace bench
