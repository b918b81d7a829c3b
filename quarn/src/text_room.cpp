#include <quarn/internal/text_room.h>

#include <cstddef>
#include <new>
#include <utility>

namespace quarn {

TextRoom& TextRoom::Get() {
  // Never destroyed: other objects may still send while the process exits. In memory that is there
  // from the start: texts are given where nobody may throw.
  alignas(TextRoom) static std::byte memory[sizeof(TextRoom)];
  static auto* const room = new (memory) TextRoom;
  return *room;
}

std::string TextRoom::Take() {
  const std::lock_guard lock(mutex_);
  last_use_ = Clock::now();
  return std::exchange(kept_, {});
}

bool TextRoom::IsWorthKeeping(std::size_t capacity) {
  if (capacity > kHuge && !std::exchange(had_huge_, true)) {
    return false;
  }
  return capacity <= kMostKept && capacity > kept_.capacity();
}

void TextRoom::Give(std::string&& text) {
  if (text.capacity() < kLarge) {
    return;
  }
  std::string room = std::move(text);  // afterwards what is not kept; it goes after unlocking
  room.clear();
  const std::lock_guard lock(mutex_);
  last_use_ = Clock::now();
  if (IsWorthKeeping(room.capacity())) {
    kept_.swap(room);
  }
}

std::optional<TextRoom::Clock::duration> TextRoom::GiveBackIdle(Clock::time_point now) {
  std::string idle;  // goes after unlocking
  const std::lock_guard lock(mutex_);
  if (now < last_use_ + kKeepTime) {
    return last_use_ + kKeepTime - now;
  }
  had_huge_ = false;
  kept_.swap(idle);
  return std::nullopt;
}

void TextRoom::GiveBack() {
  std::string kept;  // goes after unlocking
  const std::lock_guard lock(mutex_);
  last_use_ = {};
  had_huge_ = false;
  kept_.swap(kept);
}

}  // namespace quarn
