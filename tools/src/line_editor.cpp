#include "line_editor.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace tarvctl {
namespace {

constexpr int kHistoryLines = 1000;
constexpr char kPrompt[] = "> ";

char* Prompt(EditLine* /*editor*/) {
  static std::string prompt = kPrompt;
  return prompt.data();
}

}  // namespace

void Editor::EndEditLine::operator()(EditLine* editor) const { el_end(editor); }

void Editor::EndHistory::operator()(History* history) const { history_end(history); }

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
  // Its other form keeps copies of the texts for ever.
  el_wset(editor_.get(), EL_ADDFN, L"complete", L"completes a method's name", &Complete);
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
unsigned char Editor::Complete(EditLine* editor, std::wint_t /*character*/) {
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

}  // namespace tarvctl
