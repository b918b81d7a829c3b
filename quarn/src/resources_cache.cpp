#include <quarn/logger.h>
#include <quarn/object.h>
#include <quarn/resources_cache.h>
#include <quarn/sized_struct.h>

#include <algorithm>

namespace quarn {
namespace {

constexpr char kNoText[] = "";

const char* Store(std::deque<std::string>& strings, std::string_view text) {
  return strings.emplace_back(text.data(), text.size()).c_str();
}

}  // namespace

std::uint64_t ResourcesCache::CreateChunk() {
  const std::lock_guard lock(mutex_);
  const auto slot = std::find_if(chunks_.begin(), chunks_.end(),
                                 [](const Chunk& chunk) { return chunk.id == 0; });
  Chunk& chunk = slot != chunks_.end() ? *slot : chunks_.emplace_back();
  chunk.id = details::CounterClient::GenerateId();
  return chunk.id;
}

ResourcesCache::Chunk* ResourcesCache::GetChunkUnsafe(std::uint64_t id) {
  const auto found = std::find_if(chunks_.begin(), chunks_.end(),
                                  [id](const Chunk& chunk) { return chunk.id == id; });
  if (id == 0 || found == chunks_.end()) {
    // Decimal, whatever base or locale the application has set on standard output.
    QUARN_LOG_ERROR() << "Invalid chunk ID <" << std::to_string(id) << ">";
    return nullptr;
  }
  return &*found;
}

void ResourcesCache::RemoveChunk(std::uint64_t id) {
  const std::lock_guard lock(mutex_);
  if (Chunk* chunk = GetChunkUnsafe(id)) {
    chunk->id = 0;
    chunk->strings.clear();
    chunk->buffers.clear();
  }
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
