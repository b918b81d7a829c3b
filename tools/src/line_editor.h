// A line editor with completion and history.
#ifndef TARVCTL_LINE_EDITOR_H
#define TARVCTL_LINE_EDITOR_H

#include <histedit.h>

#include <cwchar>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarvctl {

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
  struct EndEditLine {
    void operator()(EditLine* editor) const;
  };
  struct EndHistory {
    void operator()(History* history) const;
  };

  static unsigned char Complete(EditLine* editor, std::wint_t character);
  void Remember();

  const std::function<std::vector<std::string>()> words_;
  const std::string history_file_;
  std::unique_ptr<History, EndHistory> history_;
  std::unique_ptr<EditLine, EndEditLine> editor_;
};

}  // namespace tarvctl

#endif  // TARVCTL_LINE_EDITOR_H
