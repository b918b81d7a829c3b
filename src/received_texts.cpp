#include "received_texts.h"

#include <algorithm>

namespace tarv::details {
namespace {

// Raw data has no room of its own, may lack the NUL at its end, and goes when its owner says so.
bool IsRawData(const QByteArray& text) { return text.capacity() == 0; }

}  // namespace

ReceivedTexts::Text ReceivedTexts::Copy(std::string_view text) {
  const std::uint64_t chunk = cache_.CreateChunk();
  return {cache_.AppendStr(chunk, text), chunk};
}

ReceivedTexts::Text ReceivedTexts::Keep(QByteArray& text) {
  if (text.size() < kLargeText || IsRawData(text)) {
    return Copy({text.constData(), static_cast<std::size_t>(text.size())});
  }
  const std::uint64_t chunk = cache_.CreateChunk();
  const std::lock_guard lock(mutex_);
  const QByteArray& kept = large_.emplace_back(chunk, std::move(text)).second;
  large_count_ = large_.size();
  return {kept.constData(), chunk};
}

void ReceivedTexts::Remove(std::uint64_t chunk) {
  const QByteArray text = large_count_ != 0 ? TakeLarge(chunk) : QByteArray();
  cache_.RemoveChunk(chunk);
}

QByteArray ReceivedTexts::TakeLarge(std::uint64_t chunk) {
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(large_.begin(), large_.end(),
                                  [chunk](const auto& entry) { return entry.first == chunk; });
  if (found == large_.end()) {
    return {};
  }
  QByteArray text = std::move(found->second);
  large_.erase(found);
  large_count_ = large_.size();
  return text;
}

}  // namespace tarv::details
