// The advice shows in the flags that the system lists for the process's memory.
#include <gtest/gtest.h>
#include <quarn/internal/large_memory.h>
#include <quarn/resources_cache.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20U;

// Memory with a mapping of its own: no neighbour has the same flags.
class Mapping {
 public:
  explicit Mapping(std::size_t size)
      : size_(size),
        data_(static_cast<char*>(
            ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~Mapping() { ::munmap(data_, size_); }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  char* GetData() const { return data_; }

 private:
  std::size_t size_;
  char* data_;
};

// The flags of the mapping that holds the address.
std::string FlagsAt(const char* address) {
  std::ifstream maps("/proc/self/smaps");
  bool inside = false;
  for (std::string line; std::getline(maps, line);) {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    char dash = 0;
    std::istringstream range(line);
    if (range >> std::hex >> begin >> dash >> end && dash == '-') {
      const auto wanted = reinterpret_cast<std::uintptr_t>(address);
      inside = begin <= wanted && wanted < end;
    } else if (inside && line.rfind("VmFlags:", 0) == 0) {
      return line + " ";
    }
  }
  return {};
}

bool WantsLargePages(const char* address) {
  return FlagsAt(address).find(" hg ") != std::string::npos;
}

class LargeMemory : public testing::Test {
 protected:
  void SetUp() override {
    if (::access("/sys/kernel/mm/transparent_hugepage/enabled", F_OK) != 0) {
      GTEST_SKIP() << "this system has no large pages";
    }
  }
};

TEST_F(LargeMemory, IsWantedInLargePagesFromTheFirstWholePageToTheLast) {
  const Mapping mapping(9 * kMiB);
  quarn::ExpectFilling(mapping.GetData() + 100, 8 * kMiB);
  EXPECT_FALSE(WantsLargePages(mapping.GetData()));
  EXPECT_TRUE(WantsLargePages(mapping.GetData() + kMiB));
  EXPECT_FALSE(WantsLargePages(mapping.GetData() + 8 * kMiB + 200));
}

TEST_F(LargeMemory, IsLeftAloneWhereItIsSmall) {
  const Mapping mapping(4 * kMiB);
  quarn::ExpectFilling(mapping.GetData(), 4 * kMiB - 1);
  EXPECT_FALSE(WantsLargePages(mapping.GetData() + kMiB));
}

TEST_F(LargeMemory, HoldsALargeTextOfACache) {
  quarn::ResourcesCache cache;
  const std::uint64_t chunk = cache.CreateChunk();
  const std::string text(8 * kMiB, 'x');
  EXPECT_FALSE(WantsLargePages(text.data() + 4 * kMiB));
  EXPECT_TRUE(WantsLargePages(cache.AppendStr(chunk, text) + 4 * kMiB));
}

}  // namespace
