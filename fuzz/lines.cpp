// The reader of JSON Lines, given a stream in any pieces: it hands out the stream's lines, texts of
// data lines as such, holds no more than the longest line, and says when one is too long.
#include <QtCore/QByteArray>
#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "envelope.h"
#include "line_buffer.h"
#include "plain_text.h"
#include "support/require.h"
#include "support/script.h"

namespace {

using RuntimeManager::host::kDataHead;
using RuntimeManager::host::kDataTail;
using RuntimeManager::host::LineBuffer;
using tarv::fuzz::Require;
using tarv::fuzz::Script;

constexpr std::size_t kLongestStream = std::size_t{2} << 20U;
constexpr std::size_t kLongestRun = std::size_t{300} << 10U;
constexpr std::size_t kMostKept = 4;

std::size_t ChooseBound(Script& script) {
  constexpr std::size_t kReadAtOnce = std::size_t{256} << 10U;
  switch (script.Below(4)) {
    case 0:
      return std::size_t{script.Byte()} + 1;
    case 1:
      return kReadAtOnce + script.Byte() - 128;
    case 2:
      return 2 * kReadAtOnce + script.Byte();
    default:
      return kLongestStream;
  }
}

// The text of a data line; the line itself for any other.
LineBuffer::Line Judge(std::string_view line) {
  const std::size_t around = kDataHead.size() + kDataTail.size();
  if (line.size() >= around && line.substr(0, kDataHead.size()) == kDataHead &&
      line.substr(line.size() - kDataTail.size()) == kDataTail) {
    const std::string_view text = line.substr(kDataHead.size(), line.size() - around);
    if (RuntimeManager::host::IsPlainText(text)) {
      return {true, text};
    }
  }
  return {false, line};
}

class Stream {
 public:
  explicit Stream(Script& script) : script_(script), bound_(ChooseBound(script)), buffer_(bound_) {}

  void Run() {
    while (script_.HasMore() && !is_overlong_) {
      Step();
    }
    Arrive(written_.size());
    CheckKept();
  }

 private:
  void Step() {
    switch (script_.Below(6)) {
      case 0:
        Write(script_.Text());
        break;
      case 1:
        Write(std::string(kDataHead));
        break;
      case 2:
        Write(std::string(kDataTail) + '\n');
        break;
      case 3:
        Write("\n");
        break;
      case 4:
        Write(std::string(script_.Number<std::uint32_t>() % kLongestRun, 'a'));
        break;
      default:
        Arrive(script_.Number<std::uint32_t>() % kLongestRun);
    }
  }

  void Write(const std::string& bytes) {
    if (written_.size() + bytes.size() <= kLongestStream) {
      written_ += bytes;
    }
  }

  // So many of the bytes that were written arrive, as reads of a socket bring them.
  void Arrive(std::size_t count) {
    const std::size_t end = std::min(arrived_ + count, written_.size());
    while (arrived_ < end && !is_overlong_) {
      Read(end - arrived_);
      TakeLines();
    }
  }

  void Read(std::size_t most) {
    const LineBuffer::Room room = buffer_.MakeRoom();
    Require(room.data != nullptr && room.size > 0, "there is room");
    Require(arrived_ - taken_ + room.size <= bound_ + 1, "no more is held than the longest line");
    const std::size_t size = std::min(room.size, most);
    std::memcpy(room.data, written_.data() + arrived_, size);
    buffer_.Commit(size);
    arrived_ += size;
  }

  void TakeLines() {
    LineBuffer::Line line;
    while (buffer_.TakeLine(&line)) {
      CheckLine(line);
      Require(buffer_.HoldsMore() == (taken_ < arrived_), "what is left is known");
    }
    const std::string_view arrived(written_.data(), arrived_);
    Require(arrived.find('\n', taken_) == std::string_view::npos, "no whole line is left");
    is_overlong_ = buffer_.IsOverlong();
    Require(is_overlong_ == (arrived_ - taken_ > bound_), "a line is too long when it is");
  }

  void CheckLine(const LineBuffer::Line& line) {
    const std::string_view rest = std::string_view(written_).substr(taken_, arrived_ - taken_);
    const std::size_t end = rest.find('\n');
    Require(end != std::string_view::npos && end <= bound_, "a line is whole and within the bound");
    const LineBuffer::Line expected = Judge(rest.substr(0, end));
    Require(line.is_data == expected.is_data, "data lines are known");
    Require(line.text == expected.text, "a line is what was written");
    taken_ += end + 1;
    if (line.is_data && script_.Flag()) {
      Keep(line.text);
    }
  }

  // A message keeps the text, for as long as it likes.
  void Keep(std::string_view text) {
    if (kept_.size() == kMostKept) {
      CheckKept();
    }
    std::string copy(text);
    kept_.emplace_back(buffer_.Detach(text), std::move(copy));
    Require(kept_.back().first == QByteArray::fromStdString(kept_.back().second), "a text's copy");
  }

  void CheckKept() {
    for (const auto& [array, copy] : kept_) {
      Require(array == QByteArray::fromStdString(copy), "a text that is kept stays");
    }
    kept_.clear();
  }

  Script& script_;
  const std::size_t bound_;
  LineBuffer buffer_;
  std::string written_;
  std::size_t arrived_ = 0;
  std::size_t taken_ = 0;
  bool is_overlong_ = false;
  std::vector<std::pair<QByteArray, std::string>> kept_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  Stream(script).Run();
  return 0;
}
