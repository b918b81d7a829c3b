#include "surroundings.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <system_error>

namespace tarv::test {
namespace {

namespace fs = std::filesystem;

std::string MakeTemporaryFolder() {
  std::string path = (fs::temp_directory_path() / "tarv-test-XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp " + path);
  }
  return path;
}

}  // namespace

std::size_t CountDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

std::vector<int> Children() {
  std::vector<int> children;
  for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
    std::ifstream list(thread.path() / "children");
    for (int child = 0; list >> child;) {
      children.push_back(child);
    }
  }
  return children;
}

std::vector<std::string> SocketsBelow(const fs::path& folder) {
  std::vector<std::string> sockets;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_socket()) {
      sockets.push_back(entry.path().string());
    }
  }
  return sockets;
}

ScopedVariable::ScopedVariable(const char* name, const std::string& value) : name_(name) {
  if (const char* const before = std::getenv(name)) {
    before_ = before;
  }
  setenv(name, value.c_str(), 1);
}

ScopedVariable::~ScopedVariable() {
  if (before_) {
    setenv(name_, before_->c_str(), 1);
  } else {
    unsetenv(name_);
  }
}

RuntimeFolder::RuntimeFolder()
    : path_(MakeTemporaryFolder()), variable_("XDG_RUNTIME_DIR", path_.string()) {}

RuntimeFolder::~RuntimeFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

}  // namespace tarv::test
