// Reads a record of any length, in the order of its times, with little memory.
#ifndef TARVCTL_RECORD_READER_H
#define TARVCTL_RECORD_READER_H

#include <cstdint>
#include <functional>
#include <optional>
#include <queue>
#include <string>
#include <string_view>
#include <vector>

#include "record_line.h"

namespace tarvctl {

class RecordReader {
 public:
  // Throws UsageError for a file that cannot be opened, as the readers below do for one that cannot
  // be read.
  explicit RecordReader(const std::string& path);
  ~RecordReader();
  RecordReader(const RecordReader&) = delete;
  RecordReader& operator=(const RecordReader&) = delete;

  // Each line as it stands in the file.
  void EachRawLine(const std::function<void(std::string_view)>& handle);
  // Each line by its time, to the end of the file. Each process writes when it gets to it, so lines
  // stand a little out of order: this many are looked over. What a process that was killed left
  // unfinished at the end counts as a line.
  void EachLine(const std::function<void(const RecordLine&)>& handle);
  // The lines that have been added since the last call.
  void EachNewLine(const std::function<void(const RecordLine&)>& handle);
  // Lines that are no lines of a record.
  std::size_t CountOdd() const { return odd_; }
  // Throws UsageError if all lines were of that kind.
  void ExpectARecord() const;

 private:
  struct Held {
    RecordLine line;
    std::size_t number;  // lines of one time keep their order
  };
  struct Later {
    bool operator()(const Held& a, const Held& b) const {
      return a.line.time != b.line.time ? a.line.time > b.line.time : a.number > b.number;
    }
  };

  [[noreturn]] void FailToRead() const;
  void Take(std::string_view text);
  std::optional<RecordLine> Pop();

  const std::string path_;
  int file_ = -1;
  std::string unfinished_;  // a line that is still being written
  std::size_t odd_ = 0;
  std::size_t held_bytes_ = 0;
  std::size_t lines_ = 0;
  std::priority_queue<Held, std::vector<Held>, Later> held_;
};

}  // namespace tarvctl

#endif  // TARVCTL_RECORD_READER_H
