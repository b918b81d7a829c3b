#include <quarn/internal/large_memory.h>
#include <quarn/logger.h>
#include <quarn/object.h>
#include <quarn/resources_cache.h>
#include <quarn/sized_struct.h>

#include <algorithm>

namespace quarn {
namespace {

constexpr char kNoText[] = "";

const char* Store(std::deque<std::string>& strings, std::string_view text) {
  if (text.data() == nullptr) {
    return strings.emplace_back(text.data(), text.size()).c_str();  // throws, unless it is empty
  }
  std::string& stored = strings.emplace_back();
  stored.reserve(text.size());
  ExpectFilling(stored.data(), text.size());
  return stored.assign(text.data(), text.size()).c_str();
}

// The position of the first `id` among `ids`; the number of ids when there is none.
std::size_t FirstPositionOf(std::uint64_t id, const std::vector<std::uint64_t>& ids) {
  return static_cast<std::size_t>(std::find(ids.begin(), ids.end(), id) - ids.begin());
}

}  // namespace

std::uint64_t ResourcesCache::CreateChunk() {
  const std::lock_guard lock(mutex_);
  const std::size_t slot = FirstPositionOf(0, ids_);
  if (slot == ids_.size()) {
    // The chunk is there already when an earlier call ran out of memory for its id.
    chunks_.resize(slot + 1);
    ids_.push_back(0);
  }
  return ids_[slot] = details::CounterClient::GenerateId();
}

std::size_t ResourcesCache::FindChunkUnsafe(std::uint64_t id) const {
  const std::size_t slot = id != 0 ? FirstPositionOf(id, ids_) : ids_.size();
  if (slot == ids_.size()) {
    QUARN_LOG_ERROR() << "Invalid chunk ID <" << id << ">";
  }
  return slot;
}

ResourcesCache::Chunk* ResourcesCache::GetChunkUnsafe(std::uint64_t id) {
  const std::size_t slot = FindChunkUnsafe(id);
  return slot < ids_.size() ? &chunks_[slot] : nullptr;
}

void ResourcesCache::RemoveChunk(std::uint64_t id) {
  const std::lock_guard lock(mutex_);
  const std::size_t slot = FindChunkUnsafe(id);
  if (slot == ids_.size()) {
    return;
  }
  ids_[slot] = 0;
  chunks_[slot].strings.clear();
  chunks_[slot].buffers.clear();
}

const char* ResourcesCache::AppendStr(std::uint64_t id, std::string_view text) {
  const std::lock_guard lock(mutex_);
  Chunk* const chunk = GetChunkUnsafe(id);
  return chunk != nullptr ? Store(chunk->strings, text) : kNoText;
}

std::pair<const char*, const char*> ResourcesCache::AppendStr(std::uint64_t id,
                                                              std::string_view first,
                                                              std::string_view second) {
  const std::lock_guard lock(mutex_);
  Chunk* const chunk = GetChunkUnsafe(id);
  if (chunk == nullptr) {
    return {kNoText, kNoText};
  }
  const char* const stored_first = Store(chunk->strings, first);
  return {stored_first, Store(chunk->strings, second)};
}

bool ResourcesCache::AppendBuffer(std::uint64_t id, Buffer&& buffer, QuarnBufferView* out,
                                  std::size_t out_size) {
  if (out == nullptr) {
    QUARN_LOG_ERROR() << "AppendBuffer: output structure pointer is null";
    return false;
  }
  StructFiller<QuarnBufferView> filler(out, out_size);
  const std::lock_guard lock(mutex_);
  Chunk* const chunk = GetChunkUnsafe(id);
  if (chunk == nullptr) {
    return false;
  }
  const Buffer& stored = chunk->buffers.emplace_back(std::move(buffer));
  filler.Fill(&QuarnBufferView::data, stored.GetData())
      .Fill(&QuarnBufferView::size, stored.GetSize());
  return true;
}

}  // namespace quarn
