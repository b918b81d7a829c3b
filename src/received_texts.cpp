#include "received_texts.h"

#include <algorithm>

namespace tarv::details {
namespace {

// Raw data has no room of its own, may lack the NUL at its end, and goes when its owner says so.
bool IsRawData(const QByteArray& text) { return text.capacity() == 0; }

}  // namespace

template <class Fill>
ReceivedTexts::Text ReceivedTexts::InNewChunk(Fill&& fill) {
  const std::uint64_t chunk = cache_.CreateChunk();
  try {
    return {fill(chunk), chunk};
  } catch (...) {
    cache_.RemoveChunk(chunk);
    throw;
  }
}

ReceivedTexts::Text ReceivedTexts::Copy(std::string_view text) {
  return InNewChunk([&](std::uint64_t chunk) { return cache_.AppendStr(chunk, text); });
}

ReceivedTexts::Text ReceivedTexts::Keep(QByteArray& text) {
  if (text.size() < kLargeText || IsRawData(text)) {
    return Copy({text.constData(), static_cast<std::size_t>(text.size())});
  }
  return InNewChunk([&](std::uint64_t chunk) { return KeepLarge(chunk, text); });
}

const char* ReceivedTexts::KeepLarge(std::uint64_t chunk, QByteArray& text) {
  const std::lock_guard lock(mutex_);
  const QByteArray& kept = large_.emplace_back(chunk, std::move(text)).second;
  large_count_ = large_.size();
  return kept.constData();
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
