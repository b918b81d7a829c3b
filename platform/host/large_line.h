// A large data line while it is read, in memory of its own.
#ifndef RUNTIME_MANAGER_HOST_LARGE_LINE_H
#define RUNTIME_MANAGER_HOST_LARGE_LINE_H

#include <QtCore/QByteArray>
#include <QtCore/QTimer>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string_view>

namespace RuntimeManager::host {

enum class Found { kLine, kOther, kNothingYet };

// Goes on with the search for the end of a data line: `bytes` begin with its text, of which
// `searched` are known to be plain. The one search finds the end, and that the text is plain.
Found FindDataEnd(std::string_view bytes, std::size_t* searched);

// Its text is read to where it stays: the message that it becomes shares the memory. Once the
// message is done with, the next large line has the memory again; so a stream of payloads takes no
// fresh pages from the system, which cost more than the bytes. A timer gives it back when no large
// line has come for a while. Belongs to one thread, whose event loop runs the timer.
class LargeLine {
 public:
  // A text of that many bytes or more is worth the memory.
  static constexpr std::size_t kLarge = std::size_t{64} << 10U;
  // Memory beyond that is not kept; nor is what doubling has made too large: that of the next line
  // is made to measure.
  static constexpr std::size_t kMostKept = std::size_t{32} << 20U;
  // How long memory is kept that nobody uses.
  static constexpr std::chrono::seconds kKeepTime{5};

  // Whether a line has begun that is not finished.
  bool IsBegun() const { return is_begun_; }
  // A line begins whose text begins so. False when memory is short.
  bool Begin(std::string_view text);
  // Room for up to `wanted` further bytes behind End(), while there are at most `most` in all. None
  // when memory is short.
  std::size_t MakeRoom(std::size_t wanted, std::size_t most);
  char* End() { return bytes_.data() + size_; }
  void Commit(std::size_t size) { size_ += size; }

  // Looks for the end of the line in what has come since.
  Found Search() { return FindDataEnd(Bytes(), &searched_); }
  // What has come behind the line's head, of this line and of those behind it.
  std::string_view Bytes() const { return {bytes_.constData(), size_}; }
  // The line's text, as far as it is searched.
  std::string_view Text() const { return Bytes().substr(0, searched_); }
  // The line has its end, or turns out to be no data line. Its bytes stay until the next begins.
  void Finish();

  // The text of the line that finished last as an array that shares the memory, if it is that.
  bool Holds(std::string_view text) const { return text.data() == bytes_.constData(); }
  QByteArray Share();
  // A text from elsewhere as an array that shares this memory. No line has begun. Throws
  // std::bad_alloc.
  QByteArray ShareCopy(std::string_view text);

 private:
  void LetGoIfShared();
  bool Reserve(std::size_t capacity);
  void KeepForAWhile();
  void OnIdle();

  QByteArray bytes_;          // shared from Share() until the message is done with
  std::size_t capacity_ = 0;  // of the bytes
  std::size_t size_ = 0;
  std::size_t searched_ = 0;
  std::size_t last_size_ = 0;  // of the last large text
  bool is_begun_ = false;
  bool has_grown_ = false;  // since the room was made
  std::unique_ptr<QTimer> timer_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_LARGE_LINE_H
