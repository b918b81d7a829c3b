// A file that only this process sees, for what reads or writes files by their names.
#ifndef FUZZ_SUPPORT_MEMORY_FILE_H
#define FUZZ_SUPPORT_MEMORY_FILE_H

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "require.h"

namespace tarv::fuzz {

class MemoryFile {
 public:
  MemoryFile() { Require(descriptor_ >= 0, "a file in memory can be made"); }
  ~MemoryFile() { ::close(descriptor_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  int Descriptor() const { return descriptor_; }
  std::string GetPath() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  void Write(std::string_view text) const {
    Require(::write(descriptor_, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
            "a file in memory takes all");
  }

  std::string GetText() const {
    std::string text;
    std::array<char, 4096> block{};
    for (ssize_t got = 1; got > 0;) {
      got = ::pread(descriptor_, block.data(), block.size(), static_cast<off_t>(text.size()));
      text.append(block.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    return text;
  }

  // The text; the file is empty then.
  std::string Take() const {
    std::string text = GetText();
    Require(::ftruncate(descriptor_, 0) == 0 && ::lseek(descriptor_, 0, SEEK_SET) == 0,
            "a file in memory can be emptied");
    return text;
  }

 private:
  const int descriptor_ = ::memfd_create("fuzz", MFD_CLOEXEC);
};

}  // namespace tarv::fuzz

#endif  // FUZZ_SUPPORT_MEMORY_FILE_H
