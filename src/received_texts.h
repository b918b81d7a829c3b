// The texts that callbacks were handed.
#ifndef TARV_SRC_RECEIVED_TEXTS_H
#define TARV_SRC_RECEIVED_TEXTS_H

#include <quarn/resources_cache.h>

#include <QByteArray>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

namespace tarv::details {

// A text of that many bytes or more is not copied.
constexpr int kLargeText = 64 << 10;

// Keeps texts alive until their chunks are unlocked: small ones as copies in a resources cache, a
// large one in the memory that it came in, which the platform has back when it is unlocked. A copy
// would be as large again, and take as long as to read the text from its socket. Any thread.
class ReceivedTexts {
 public:
  struct Text {
    const char* message = "";
    std::uint64_t chunk = 0;
  };

  // Copies the text into a chunk of its own.
  Text Copy(std::string_view text);
  // Keeps the text in a chunk of its own, and takes it out of `text` if it is large.
  Text Keep(QByteArray& text);
  // Lets go of a chunk. One that does not exist is logged.
  void Remove(std::uint64_t chunk);

 private:
  // Makes a chunk and has `fill` put a text into it. The chunk goes again when that throws.
  template <class Fill>
  Text InNewChunk(Fill&& fill);
  const char* KeepLarge(std::uint64_t chunk, QByteArray& text);
  QByteArray TakeLarge(std::uint64_t chunk);

  quarn::ResourcesCache cache_;  // every chunk is one of its, also a large text's
  std::mutex mutex_;             // guards the large texts
  std::vector<std::pair<std::uint64_t, QByteArray>> large_;
  std::atomic<std::size_t> large_count_{0};
};

}  // namespace tarv::details

#endif  // TARV_SRC_RECEIVED_TEXTS_H
