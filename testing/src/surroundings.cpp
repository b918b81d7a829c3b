#include "surroundings.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <system_error>

namespace tarv::testing::details {
namespace {

namespace fs = std::filesystem;

std::string MakeTemporaryFolder() {
  std::string path = (fs::temp_directory_path() / "tarv-testing-XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "tarv::testing: mkdtemp " + path);
  }
  return path;
}

// "counting", or "?" when it is gone.
std::string NameOfProcess(int process) {
  std::string name;
  std::getline(std::ifstream("/proc/" + std::to_string(process) + "/comm"), name);
  return name.empty() ? "?" : name;
}

}  // namespace

ScopedVariables::~ScopedVariables() {
  for (const auto& [name, value] : before_) {
    if (value) {
      setenv(name.c_str(), value->c_str(), 1);
    } else {
      unsetenv(name.c_str());
    }
  }
}

void ScopedVariables::Set(const std::string& name, const std::string& value) {
  const char* const now = std::getenv(name.c_str());
  before_.emplace(name, now == nullptr ? std::nullopt : std::optional<std::string>(now));
  setenv(name.c_str(), value.c_str(), 1);
}

PrivateFolder::PrivateFolder() : process_(getpid()), path_(MakeTemporaryFolder()) {}

PrivateFolder::~PrivateFolder() {
  if (process_ != getpid()) {
    return;
  }
  std::error_code ignored;  // nobody can do more about a folder that stays
  fs::remove_all(path_, ignored);
}

std::string ReadFile(const fs::path& path, std::size_t from) {
  std::ifstream file(path, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(from));
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::map<int, std::string> OpenDescriptors() {
  std::map<int, std::string> open;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string what = fs::read_symlink(entry.path(), gone).string();
    // The folder that is being read has one itself.
    if (!gone && what.find("/fd") == std::string::npos) {
      open.emplace(std::stoi(entry.path().filename().string()), what);
    }
  }
  return open;
}

std::set<int> Children() {
  std::set<int> children;
  for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
    std::ifstream list(thread.path() / "children");
    for (int child = 0; list >> child;) {
      children.insert(child);
    }
  }
  return children;
}

std::vector<std::string> SocketsBelow(const fs::path& folder) {
  std::vector<std::string> sockets;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_socket()) {
      sockets.push_back("the socket " + entry.path().lexically_relative(folder).string());
    }
  }
  return sockets;
}

std::vector<std::string> NewDescriptors(const std::map<int, std::string>& before) {
  std::vector<std::string> lines;
  for (const auto& [descriptor, what] : OpenDescriptors()) {
    const auto known = before.find(descriptor);
    if (known == before.end() || known->second != what) {
      lines.push_back("the descriptor " + std::to_string(descriptor) + ", " + what);
    }
  }
  return lines;
}

std::vector<std::string> NewChildren(const std::set<int>& before) {
  std::vector<std::string> lines;
  for (const int child : Children()) {
    if (before.count(child) == 0) {
      lines.push_back("the process " + std::to_string(child) + " (" + NameOfProcess(child) + ")");
    }
  }
  return lines;
}

}  // namespace tarv::testing::details
