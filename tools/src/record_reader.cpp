#include "record_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "request.h"

namespace tarvctl {
namespace {

constexpr std::size_t kBlock = std::size_t{1} << 20U;
// A process that waits for a slow reader writes its line late; few others write as much meanwhile.
constexpr std::size_t kMostHeldLines = 20000;
constexpr std::size_t kMostHeldBytes = std::size_t{32} << 20U;

std::size_t SizeOf(const RecordLine& line) { return line.data.size() + line.envelope.size(); }

}  // namespace

RecordReader::RecordReader(const std::string& path)
    : path_(path), file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (file_ < 0) {
    FailToRead();
  }
}

void RecordReader::FailToRead() const {
  throw UsageError("cannot read the record '" + path_ + "': " + std::strerror(errno) +
                   "; RUNTIME_MANAGER_TRACE=FILE makes one");
}

RecordReader::~RecordReader() { ::close(file_); }

void RecordReader::EachRawLine(const std::function<void(std::string_view)>& handle) {
  std::string block(kBlock, '\0');
  ssize_t got = 0;
  while ((got = ::read(file_, block.data(), block.size())) > 0) {
    std::string_view rest(block.data(), static_cast<std::size_t>(got));
    for (std::size_t end = 0; (end = rest.find('\n')) != std::string_view::npos;) {
      const std::string_view line = rest.substr(0, end);
      if (unfinished_.empty()) {
        handle(line);
      } else {
        unfinished_.append(line);
        handle(std::exchange(unfinished_, {}));
      }
      rest.remove_prefix(end + 1);
    }
    unfinished_.append(rest);
  }
  if (got < 0) {
    FailToRead();
  }
}

void RecordReader::Take(std::string_view text) {
  auto line = ParseRecordLine(text);
  if (!line) {
    ++odd_;
    return;
  }
  held_bytes_ += SizeOf(*line);
  held_.push({*std::move(line), lines_++});
}

std::optional<RecordLine> RecordReader::Pop() {
  if (held_.empty()) {
    return std::nullopt;
  }
  // The queue gives its first only as a constant; it is removed at once.
  RecordLine line = std::move(const_cast<Held&>(held_.top()).line);
  const std::size_t size = SizeOf(line);
  held_.pop();
  held_bytes_ -= size;
  return line;
}

void RecordReader::EachLine(const std::function<void(const RecordLine&)>& handle) {
  EachRawLine([this, &handle](std::string_view text) {
    Take(text);
    while (held_.size() > kMostHeldLines || held_bytes_ > kMostHeldBytes) {
      handle(*Pop());
    }
  });
  if (!unfinished_.empty()) {
    Take(std::exchange(unfinished_, {}));
  }
  while (const auto line = Pop()) {
    handle(*line);
  }
}

void RecordReader::ExpectARecord() const {
  if (lines_ == 0 && odd_ > 0) {
    throw UsageError("'" + path_ + "' is no record: RUNTIME_MANAGER_TRACE=FILE makes one");
  }
}

void RecordReader::EachNewLine(const std::function<void(const RecordLine&)>& handle) {
  EachRawLine([this](std::string_view text) { Take(text); });
  while (const auto line = Pop()) {
    handle(*line);
  }
}

}  // namespace tarvctl
