// Runs a fuzz target over the inputs that were kept: every file that is named, and every file of
// the folders that are named. Stands in for the fuzzing engine where the compiler has none.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void Replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
  // Named before it runs, so that what ends the process can be found.
  std::fprintf(stderr, "%s\n", file.c_str());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

std::size_t ReplayAll(const std::filesystem::path& path) {
  if (!std::filesystem::is_directory(path)) {
    Replay(path);
    return 1;
  }
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    Replay(entry.path());
    ++count;
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    count += ReplayAll(argv[i]);
  }
  std::fprintf(stderr, "%zu inputs\n", count);
  return count > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
