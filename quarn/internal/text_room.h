// The memory of large texts that go out.
#ifndef QUARN_INTERNAL_TEXT_ROOM_H
#define QUARN_INTERNAL_TEXT_ROOM_H

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

namespace quarn {

// Keeps the memory of one large text for the next one, so that a program that sends payload after
// payload does not take fresh pages from the system for each: they cost more than the payload's
// bytes. Whoever has an event loop asks GiveBackIdle() to let go of it. Any thread.
class TextRoom {
 public:
  using Clock = std::chrono::steady_clock;

  // A text of that many bytes or more is large.
  static constexpr std::size_t kLarge = std::size_t{64} << 10U;
  // The memory of a longer text is kept only when another such one came before: a payload that comes
  // alone shall not stay in memory in one form more while its answer is read.
  static constexpr std::size_t kHuge = std::size_t{4} << 20U;
  // Memory beyond that is not kept.
  static constexpr std::size_t kMostKept = std::size_t{32} << 20U;
  // How long memory is kept that nobody uses.
  static constexpr std::chrono::seconds kKeepTime{5};

  // The process's.
  static TextRoom& Get();

  TextRoom() = default;
  TextRoom(const TextRoom&) = delete;
  TextRoom& operator=(const TextRoom&) = delete;
  ~TextRoom() = default;

  // An empty text, with the memory that is kept, if it is there.
  std::string Take();
  // Keeps the text's memory, if it is worth it and larger than what is kept already.
  void Give(std::string&& text);
  // Lets go of what is kept when there was no Take() nor Give() for kKeepTime, and returns nothing;
  // else how long it takes until then. A text that is out counts as in use for so long.
  std::optional<Clock::duration> GiveBackIdle(Clock::time_point now = Clock::now());
  // Lets go of it at once.
  void GiveBack();

 private:
  bool IsWorthKeeping(std::size_t capacity);

  std::mutex mutex_;
  std::string kept_;
  bool had_huge_ = false;       // in the time that memory is kept for
  Clock::time_point last_use_;  // the clock's beginning: never
};

}  // namespace quarn

#endif  // QUARN_INTERNAL_TEXT_ROOM_H
