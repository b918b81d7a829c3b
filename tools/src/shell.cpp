// shell: a conversation with one task, line by line.
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QSocketNotifier>
#include <QtCore/QStandardPaths>
#include <algorithm>
#include <array>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "conversation.h"
#include "exit_status.h"
#include "interrupt.h"
#include "json.h"
#include "line_editor.h"
#include "shapes.h"
#include "verbs.h"

namespace tarvctl {
namespace {

constexpr char kDescribe[] = "$/describe";
constexpr char kHelp[] =
    "METHOD [PARAMS]         call; the answer comes when it comes, others may be on their way\n"
    "notify METHOD [PARAMS]  send a notification\n"
    "cancel [NUMBER]         cancel that call, or all\n"
    "methods                 what the task can be asked\n"
    "exit                    or Ctrl-D";

std::string HistoryFile() {
  const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
  QDir().mkpath(folder + "/tarvctl");
  return (folder + "/tarvctl/history").toStdString();
}

class Shell {
 public:
  Shell(const Request& request, Output& output)
      : request_(request),
        output_(output),
        session_(request.task, ParseDuration(request.timeout, "--timeout"),
                 [this](const vorpc::Message::Notification& got) { OnNotification(got); }),
        is_terminal_(::isatty(STDIN_FILENO) != 0),
        interrupt_([this] { OnInterrupt(); }) {}

  int Run();

 private:
  struct Open {
    unsigned number;
    tarv::Call<cw::EncodableValue, cw::EncodableValue> call;
  };

  void AskForMethods();
  void OnDescribed(const AnyOutcome& outcome);
  std::vector<std::string> Words() const;
  void OnInput();
  void OnTypedLine();
  void OnLine(const std::string& line);
  void Obey(const std::string& word, std::istringstream& rest);
  void Call(const std::string& method, const std::string& params);
  void Notify(std::istringstream& rest);
  void Cancel(const std::string& number);
  void OnInterrupt();
  void OnNotification(const vorpc::Message::Notification& notification);
  void OnEnded(unsigned number, const std::string& method, const AnyOutcome& outcome);
  void Say(const std::string& text);
  cw::EncodableValue Parse(const std::string& params) const;
  void EndWhenIdle();

  const Request& request_;
  Output& output_;
  Session session_;
  const bool is_terminal_;
  const Interrupt interrupt_;
  std::vector<std::string> methods_;
  std::vector<Open> open_;
  unsigned last_number_ = 0;
  bool is_described_ = false;  // what the task can be asked is known, or that it does not tell
  bool is_over_ = false;
  int status_ = kDone;
  std::string unfinished_;  // a line that has not come whole
  std::unique_ptr<Editor> editor_;
  std::unique_ptr<QSocketNotifier> input_;
};

int Shell::Run() {
  session_.GetClient().OnDisconnected([this](const auto& error) {
    if (!is_over_) {
      Say(error ? error->message : "the connection was closed");
      QCoreApplication::exit(kTaskEnded);
    }
  });
  AskForMethods();
  if (is_terminal_) {
    editor_ = std::make_unique<Editor>([this] { return Words(); }, HistoryFile());
  }
  input_ = std::make_unique<QSocketNotifier>(STDIN_FILENO, QSocketNotifier::Read);
  QObject::connect(input_.get(), &QSocketNotifier::activated, input_.get(), [this] { OnInput(); });
  const int status = QCoreApplication::exec();
  is_over_ = true;
  return status;
}

// For completion; a task without a description has none.
void Shell::AskForMethods() {
  session_.GetCaller()
      .Call(AnyMethod{kDescribe}, {},
            tarv::CallOptions().Timeout(ParseDuration(request_.timeout, "--timeout")))
      .Then([this](const AnyOutcome& outcome) { OnDescribed(outcome); });
}

void Shell::OnDescribed(const AnyOutcome& outcome) {
  if (!outcome && outcome.GetError().GetReason() != tarv::CallReason::kAnswered) {
    Say(outcome.GetError().what());
    QCoreApplication::exit(StatusOf(outcome.GetError()));
    return;
  }
  if (outcome) {
    methods_ = MethodNames(*outcome);
  }
  is_described_ = true;
  EndWhenIdle();
}

std::vector<std::string> Shell::Words() const {
  std::vector<std::string> words = methods_;
  words.insert(words.end(), {"notify", "cancel", "methods", "help", "exit"});
  return words;
}

void Shell::OnInput() {
  if (is_terminal_) {
    OnTypedLine();
    return;
  }
  std::array<char, 4096> block{};
  const ssize_t got = ::read(STDIN_FILENO, block.data(), block.size());
  if (got <= 0) {
    input_->setEnabled(false);
    is_over_ = true;
    EndWhenIdle();
    return;
  }
  unfinished_.append(block.data(), static_cast<std::size_t>(got));
  for (std::size_t end = 0; (end = unfinished_.find('\n')) != std::string::npos;) {
    const std::string line = unfinished_.substr(0, end);
    unfinished_.erase(0, end + 1);
    OnLine(line);
  }
}

void Shell::OnTypedLine() {
  std::string line;
  switch (editor_->Take(&line)) {
    case Editor::State::kLine:
      OnLine(line);
      break;
    case Editor::State::kEnd:
      QCoreApplication::exit(kDone);
      break;
    default:
      break;
  }
}

void Shell::OnLine(const std::string& line) {
  std::istringstream rest(line);
  std::string word;
  if (!(rest >> word)) {
    return;
  }
  try {
    Obey(word, rest);
  } catch (const JsonError& error) {
    Say(error.what());
  }
}

void Shell::Obey(const std::string& word, std::istringstream& rest) {
  std::string argument;
  if (word == "exit") {
    is_over_ = true;
    QCoreApplication::exit(kDone);
  } else if (word == "help") {
    Say(kHelp);
  } else if (word == "notify") {
    Notify(rest);
  } else if (word == "cancel") {
    rest >> argument;
    Cancel(argument);
  } else if (word == "methods") {
    Call(kDescribe, {});
  } else {
    std::getline(rest, argument);
    Call(word, argument);
  }
}

cw::EncodableValue Shell::Parse(const std::string& params) const {
  const bool is_blank = params.find_first_not_of(' ') == std::string::npos;
  return is_blank ? cw::EncodableValue() : FromJson(ParseJson(params, "PARAMS"), request_.typed);
}

void Shell::Call(const std::string& method, const std::string& params) {
  const unsigned number = ++last_number_;
  const auto call = session_.GetCaller().Call(
      AnyMethod{method}, Parse(params),
      tarv::CallOptions().Timeout(ParseDuration(request_.timeout, "--timeout")));
  open_.push_back({number, call});
  call.OnProgress([this, number](const cw::EncodableValue& step) {
    Say('[' + std::to_string(number) + "] progress " + ShortJson(step, request_.typed));
  });
  call.Then(
      [this, number, method](const AnyOutcome& outcome) { OnEnded(number, method, outcome); });
}

void Shell::OnEnded(unsigned number, const std::string& method, const AnyOutcome& outcome) {
  open_.erase(std::remove_if(open_.begin(), open_.end(),
                             [number](const Open& open) { return open.number == number; }),
              open_.end());
  if (outcome && method == kDescribe) {
    for (const std::string& line : DescribeMethods(*outcome, output_)) {
      Say(line);
    }
    EndWhenIdle();
    return;
  }
  if (!outcome && StatusOf(outcome.GetError()) == kTaskEnded) {
    status_ = kTaskEnded;
  }
  const std::string head = '[' + std::to_string(number) + "] " + method + ' ';
  Say(head + (outcome ? ShortJson(*outcome, request_.typed)
                      : output_.Paint(Colour::kRed, outcome.GetError().what())));
  EndWhenIdle();
}

void Shell::Notify(std::istringstream& rest) {
  std::string method;
  std::string params;
  rest >> method;
  std::getline(rest, params);
  session_.GetClient().SendNotify(method, Parse(params));
}

void Shell::Cancel(const std::string& number) {
  for (const Open& open : std::vector<Open>(open_)) {
    if (number.empty() || number == std::to_string(open.number)) {
      open.call.Cancel();
    }
  }
}

// Cancels what is on its way; with nothing on its way, it ends the shell.
void Shell::OnInterrupt() {
  if (open_.empty()) {
    QCoreApplication::exit(kInterrupted);
  }
  Cancel({});
}

void Shell::OnNotification(const vorpc::Message::Notification& notification) {
  Say(output_.Paint(Colour::kCyan, notification.method) + ' ' +
      ShortJson(notification.params, request_.typed));
}

void Shell::Say(const std::string& text) {
  if (editor_ != nullptr) {
    output_.Print("\r\x1b[K");
  }
  output_.PrintLine(text);
  output_.Flush();
  if (editor_ != nullptr) {
    editor_->Refresh();
  }
}

void Shell::EndWhenIdle() {
  if (is_over_ && is_described_ && open_.empty()) {
    QCoreApplication::exit(status_);
  }
}

}  // namespace

int RunShell(const Request& request, Output& output) { return Shell(request, output).Run(); }

}  // namespace tarvctl
