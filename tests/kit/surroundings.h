// What a test stands in: environment variables, a runtime folder, and what it may not leave behind.
#ifndef KIT_SURROUNDINGS_H
#define KIT_SURROUNDINGS_H

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tarv::test {

// Open descriptors of this process.
std::size_t CountDescriptors();

// Children of this process, dead or alive, by id.
std::vector<int> Children();

// Sockets below a folder, by path.
std::vector<std::string> SocketsBelow(const std::filesystem::path& folder);

// An environment variable for the life of the object; what it was comes back then.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::string& value);
  ~ScopedVariable();
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  const char* name_;
  std::optional<std::string> before_;
};

// A private folder for sockets, removed with the object: XDG_RUNTIME_DIR names it meanwhile.
class RuntimeFolder {
 public:
  RuntimeFolder();
  ~RuntimeFolder();
  RuntimeFolder(const RuntimeFolder&) = delete;
  RuntimeFolder& operator=(const RuntimeFolder&) = delete;

  const std::filesystem::path& GetPath() const { return path_; }

 private:
  std::filesystem::path path_;
  ScopedVariable variable_;
};

}  // namespace tarv::test

#endif  // KIT_SURROUNDINGS_H
