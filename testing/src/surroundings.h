// What a real task stands in, and what it may not leave behind.
#ifndef TARV_TESTING_SRC_SURROUNDINGS_H
#define TARV_TESTING_SRC_SURROUNDINGS_H

#include <cstddef>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarv::testing::details {

// Environment variables for the life of the object; what they were comes back then.
class ScopedVariables {
 public:
  ScopedVariables() = default;
  ~ScopedVariables();
  ScopedVariables(const ScopedVariables&) = delete;
  ScopedVariables& operator=(const ScopedVariables&) = delete;

  void Set(const std::string& name, const std::string& value);

 private:
  std::map<std::string, std::optional<std::string>> before_;
};

// A private folder, removed with the object, but not in a forked copy of the process. Throws
// std::system_error.
class PrivateFolder {
 public:
  PrivateFolder();
  ~PrivateFolder();
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;

  const std::filesystem::path& GetPath() const { return path_; }

 private:
  const int process_;
  std::filesystem::path path_;
};

// From this byte on; empty when there is no such file.
std::string ReadFile(const std::filesystem::path& path, std::size_t from = 0);

// The descriptors that this process has open, and what they are: "socket:[123]".
std::map<int, std::string> OpenDescriptors();
// The children of this process, dead or alive.
std::set<int> Children();
// Sockets below a folder.
std::vector<std::string> SocketsBelow(const std::filesystem::path& folder);

// Those that `now` has and `before` has not, a line each.
std::vector<std::string> NewDescriptors(const std::map<int, std::string>& before);
std::vector<std::string> NewChildren(const std::set<int>& before);

}  // namespace tarv::testing::details

#endif  // TARV_TESTING_SRC_SURROUNDINGS_H
