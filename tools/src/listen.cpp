// listen: what a task tells unasked, a line of JSON each.
#include <vorpc/message.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

#include "conversation.h"
#include "exit_status.h"
#include "interrupt.h"
#include "verbs.h"

namespace tarvctl {
namespace {

class Listening {
 public:
  Listening(const Request& request, Output& output)
      : request_(request),
        output_(output),
        session_(request.task, ParseDuration(request.timeout, "--timeout"),
                 [this](const vorpc::Message::Notification& got) { OnNotification(got); }),
        interrupt_([] { QCoreApplication::exit(kDone); }) {}

  int Run() {
    auto& client = session_.GetClient();
    client.OnConnected([this](const auto& error) { OnConnected(error); });
    client.OnDisconnected([this](const auto& error) { OnDisconnected(error); });
    const auto limit = ParseDuration(request_.timeout, "--timeout");
    QTimer::singleShot(std::chrono::ceil<std::chrono::milliseconds>(limit), [this] {
      if (!session_.GetClient().IsConnected()) {
        output_.Complain("the task '" + session_.GetTaskName() + "' has not connected within " +
                         request_.timeout + ": does it call server->Run()?");
        QCoreApplication::exit(kTimedOut);
      }
    });
    client.Run();
    return QCoreApplication::exec();
  }

 private:
  using OptionalError = std::optional<vorpc::Message::Error>;

  void OnConnected(const OptionalError& error) {
    if (error) {
      output_.Complain(error->message);
      QCoreApplication::exit(kNotConnected);
    }
  }
  void OnDisconnected(const OptionalError& error) {
    output_.Complain(error ? error->message : "the connection was closed");
    QCoreApplication::exit(kTaskEnded);
  }
  void OnNotification(const vorpc::Message::Notification& notification) {
    const auto& wanted = request_.methods;
    if (!wanted.empty() &&
        std::find(wanted.begin(), wanted.end(), notification.method) == wanted.end()) {
      return;
    }
    PrintValue(cw::EncodableMap{{"method", notification.method}, {"params", notification.params}},
               request_, output_);
    output_.Flush();
    if (++count_ == request_.count) {
      QCoreApplication::exit(kDone);
    }
  }

  const Request& request_;
  Output& output_;
  unsigned count_ = 0;
  Session session_;
  const Interrupt interrupt_;
};

}  // namespace

int RunListen(const Request& request, Output& output) { return Listening(request, output).Run(); }

}  // namespace tarvctl
