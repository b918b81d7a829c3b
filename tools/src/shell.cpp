// shell: a conversation with one task, line by line.
#include <histedit.h>
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QSocketNotifier>
#include <QtCore/QStandardPaths>
#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "conversation.h"
#include "exit_status.h"
#include "interrupt.h"
#include "json.h"
#include "shapes.h"
#include "verbs.h"

namespace tarvctl {
namespace {

constexpr int kHistoryLines = 1000;
constexpr char kDescribe[] = "$/describe";
constexpr char kPrompt[] = "> ";
constexpr char kHelp[] =
    "METHOD [PARAMS]         call; the answer comes when it comes, others may be on their way\n"
    "notify METHOD [PARAMS]  send a notification\n"
    "cancel [NUMBER]         cancel that call, or all\n"
    "methods                 what the task can be asked\n"
    "exit                    or Ctrl-D";

struct EndEditLine {
  void operator()(EditLine* editor) const { el_end(editor); }
};
struct EndHistory {
  void operator()(History* history) const { history_end(history); }
};

// The line editor, in the middle of an event loop: it takes what is typed, character by character.
class Editor {
 public:
  Editor(std::function<std::vector<std::string>()> words, const std::string& history_file);
  ~Editor() { Remember(); }
  Editor(const Editor&) = delete;
  Editor& operator=(const Editor&) = delete;

  enum class State { kMore, kLine, kEnd };
  // Takes what was typed; `line` is complete with kLine.
  State Take(std::string* line);
  // Prints between the lines that are being edited.
  void Refresh() { el_set(editor_.get(), EL_REFRESH); }

 private:
  static unsigned char Complete(EditLine* editor, int character);
  void Remember();

  const std::function<std::vector<std::string>()> words_;
  const std::string history_file_;
  std::unique_ptr<History, EndHistory> history_;
  std::unique_ptr<EditLine, EndEditLine> editor_;
};

char* Prompt(EditLine* /*editor*/) {
  static std::string prompt = kPrompt;
  return prompt.data();
}

Editor::Editor(std::function<std::vector<std::string>()> words, const std::string& history_file)
    : words_(std::move(words)),
      history_file_(history_file),
      history_(history_init()),
      editor_(el_init("tarvctl", stdin, stderr, stderr)) {
  HistEvent event{};
  history(history_.get(), &event, H_SETSIZE, kHistoryLines);
  history(history_.get(), &event, H_SETUNIQUE, 1);
  history(history_.get(), &event, H_LOAD, history_file_.c_str());
  el_set(editor_.get(), EL_CLIENTDATA, this);
  el_set(editor_.get(), EL_PROMPT, &Prompt);
  el_set(editor_.get(), EL_EDITOR, "emacs");
  el_set(editor_.get(), EL_HIST, &history, history_.get());
  el_set(editor_.get(), EL_ADDFN, "complete", "completes a method's name", &Complete);
  el_set(editor_.get(), EL_BIND, "^I", "complete", nullptr);
  el_set(editor_.get(), EL_UNBUFFERED, 1);
}

void Editor::Remember() {
  HistEvent event{};
  history(history_.get(), &event, H_SAVE, history_file_.c_str());
  el_set(editor_.get(), EL_UNBUFFERED, 0);
}

Editor::State Editor::Take(std::string* line) {
  int count = 0;
  const char* const text = el_gets(editor_.get(), &count);
  if (text == nullptr || count <= 0) {
    return State::kEnd;
  }
  if (text[count - 1] == '\x04') {
    return count == 1 ? State::kEnd : State::kMore;
  }
  if (text[count - 1] != '\n' && text[count - 1] != '\r') {
    return State::kMore;
  }
  line->assign(text, static_cast<std::size_t>(count) - 1);
  if (line->find_first_not_of(' ') != std::string::npos) {
    HistEvent event{};
    history(history_.get(), &event, H_ENTER, line->c_str());
  }
  el_set(editor_.get(), EL_UNBUFFERED, 0);
  el_set(editor_.get(), EL_UNBUFFERED, 1);
  return State::kLine;
}

// Completes the word before the cursor as far as all that fit agree.
unsigned char Editor::Complete(EditLine* editor, int /*character*/) {
  Editor* self = nullptr;
  el_get(editor, EL_CLIENTDATA, &self);
  const LineInfo* const info = el_line(editor);
  const std::string before(info->buffer, info->cursor);
  const std::string begun = before.substr(before.find_last_of(' ') + 1);
  std::string common;
  bool is_first = true;
  for (const std::string& word : self->words_()) {
    if (word.compare(0, begun.size(), begun) == 0) {
      const auto end = std::mismatch(common.begin(), common.end(), word.begin(), word.end()).first;
      common = std::exchange(is_first, false) ? word : std::string(common.begin(), end);
    }
  }
  if (common.size() <= begun.size()) {
    return CC_ERROR;
  }
  el_insertstr(editor, common.substr(begun.size()).c_str());
  return CC_REFRESH;
}

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
