// Bytes of a stream, cut into lines.
#ifndef RUNTIME_MANAGER_HOST_LINE_BUFFER_H
#define RUNTIME_MANAGER_HOST_LINE_BUFFER_H

#include <QtCore/QByteArray>
#include <cstddef>
#include <string_view>

#include "large_line.h"

namespace RuntimeManager::host {

// Holds at most one byte more than the longest line. Every byte is searched once, and moved at most
// once for each time that the buffer is filled. A data line that does not fit into one read goes on
// in memory of its own. Belongs to one thread.
class LineBuffer {
 public:
  struct Line {
    bool is_data = false;   // {"data":"text"}, with a text of plain characters
    std::string_view text;  // that text, or the whole line without its end
  };

  explicit LineBuffer(std::size_t max_line) : max_line_(max_line) {}

  struct Room {
    char* data = nullptr;
    std::size_t size = 0;
  };
  // Where the next bytes go. No room when memory is short. Invalidates every line that was handed
  // out.
  Room MakeRoom();
  // `size` bytes of the room have been filled.
  void Commit(std::size_t size);

  // Takes the next whole line out of the buffer. False when there is none.
  bool TakeLine(Line* line);
  // Whether there are bytes behind the line that was taken last.
  bool HoldsMore() const { return end_ > begin_; }
  // Makes the text that was taken last an array that stays. A large one shares its memory with the
  // buffer, which uses it again once the array is gone.
  QByteArray Detach(std::string_view text);
  // Takes back what Detach() made, when nobody needs it any more: the next small text goes there,
  // which spares an allocation for each.
  void Recycle(QByteArray&& text);
  // Whether the line that has begun is too long already.
  bool IsOverlong() const;

 private:
  bool Reserve(std::size_t capacity);
  void MoveToFront();
  bool IsFullOfDataLine() const;
  void BeginLarge();
  Room MakeLargeRoom();
  std::string_view Rest(std::size_t from) const { return {data_.constData() + from, end_ - from}; }
  Found FindEnd();
  bool TakeLarge(Line* line);
  bool TakeData(Line* line);
  bool TakeOther(Line* line);
  void BeginLine(std::size_t at);
  void Refill(std::string_view head, std::string_view rest);

  std::size_t max_line_;
  QByteArray data_;  // never shared
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t searched_ = 0;
  std::size_t end_ = 0;
  bool is_other_ = false;  // it is no data line
  QByteArray spare_;       // what came back
  LargeLine large_;        // nothing else is here while a line has begun there
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_LINE_BUFFER_H
