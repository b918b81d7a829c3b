// What the classes of the fake platform were asked, in the order in which it happened.
#ifndef FAKE_RUNTIME_MANAGER_JOURNAL_H
#define FAKE_RUNTIME_MANAGER_JOURNAL_H

#include <QString>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace RuntimeManager {

// Any thread.
class Journal {
 public:
  // Lives until the process has ended: what ends last is written down, too.
  static Journal& Get() {
    static auto* const journal = new Journal;
    return *journal;
  }

  void Write(const QString& line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line.toStdString());
  }

  // The lines since the last call.
  std::vector<std::string> Take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace RuntimeManager

#endif  // FAKE_RUNTIME_MANAGER_JOURNAL_H
