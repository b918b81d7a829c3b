// quarn::ResourcesCache: keeps text and bytes alive that were handed out by pointer.
//
// The producer opens a chunk, puts strings and buffers into it and hands out their addresses with
// the chunk's id; whoever received them gives the id back when it is done.
#ifndef QUARN_RESOURCES_CACHE_H
#define QUARN_RESOURCES_CACHE_H

#include <quarn/buffer.h>
#include <quarn/export.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quarn {

// Any thread; one mutex serialises the operations. Addresses stay valid until their chunk is
// removed or the cache dies. A chunk id that is unknown, or 0, is logged: "Invalid chunk ID <7>".
class TARV_EXPORT ResourcesCache {
 public:
  ResourcesCache() = default;
  virtual ~ResourcesCache() = default;
  ResourcesCache(const ResourcesCache&) = delete;
  ResourcesCache& operator=(const ResourcesCache&) = delete;

  // Opens a chunk, in the first free slot, and returns its id, which is never 0 and never reused.
  std::uint64_t CreateChunk();

  // Frees everything in the chunk.
  void RemoveChunk(std::uint64_t id);

  // Stores a zero-terminated copy of `text` and returns its address; a static empty string when
  // there is no such chunk. Throws std::logic_error for a null text that is not of length zero.
  const char* AppendStr(std::uint64_t id, std::string_view text);

  // The same for two strings, in this order, under one lock.
  std::pair<const char*, const char*> AppendStr(std::uint64_t id, std::string_view first,
                                                std::string_view second);

  // Moves `buffer` into the chunk and describes it in `out`, as far as `out_size` bytes reach.
  // False, with the buffer left to the caller, when `out` is null (logged) or there is no such
  // chunk (`out` is then zero but for its size).
  bool AppendBuffer(std::uint64_t id, Buffer&& buffer, QuarnBufferView* out, std::size_t out_size);

 private:
  // Deques, because appending to one moves nothing that is in it.
  struct Chunk {
    std::deque<std::string> strings;
    std::deque<Buffer> buffers;
  };

  // The chunk; null, after a log line, when there is none. With the mutex held, as the next.
  Chunk* GetChunkUnsafe(std::uint64_t id);
  // The chunk's slot; the number of slots, after a log line, when there is none.
  std::size_t FindChunkUnsafe(std::uint64_t id) const;

  std::mutex mutex_;
  std::deque<Chunk> chunks_;
  // The id of the chunk in each slot, 0 for a free one. They lie apart from the chunks, so that a
  // scan reads eight bytes a slot, one after the other.
  std::vector<std::uint64_t> ids_;
};

// A chunk for the length of a scope.
class TARV_EXPORT ResourcesCacheGuard {
 public:
  // `cache` must outlive the guard.
  explicit ResourcesCacheGuard(ResourcesCache& cache) : cache_(cache), id_(cache.CreateChunk()) {}
  ~ResourcesCacheGuard() { cache_.RemoveChunk(id_); }
  ResourcesCacheGuard(const ResourcesCacheGuard&) = delete;
  ResourcesCacheGuard& operator=(const ResourcesCacheGuard&) = delete;

  const char* AppendStr(std::string_view text) { return cache_.AppendStr(id_, text); }
  std::pair<const char*, const char*> AppendStr(std::string_view first, std::string_view second) {
    return cache_.AppendStr(id_, first, second);
  }
  bool AppendBuffer(Buffer&& buffer, QuarnBufferView* out, std::size_t out_size) {
    return cache_.AppendBuffer(id_, std::move(buffer), out, out_size);
  }

 private:
  ResourcesCache& cache_;
  std::uint64_t id_;
};

}  // namespace quarn

#endif  // QUARN_RESOURCES_CACHE_H
