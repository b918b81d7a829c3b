#include "file_list.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>

namespace checksums {
namespace {

namespace fs = std::filesystem;

struct FileId {
  dev_t device;
  ino_t inode;
};

std::optional<FileId> StandardOutput() {
  struct stat status {};
  if (fstat(STDOUT_FILENO, &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return FileId{status.st_dev, status.st_ino};
}

bool IsSame(const std::optional<FileId>& id, const struct stat& status) {
  return id && id->device == status.st_dev && id->inode == status.st_ino;
}

void AddFile(const std::string& path, const std::optional<FileId>& output, FileList& list) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 || IsSame(output, status)) {
    return;
  }
  list.files.push_back({path, static_cast<std::uint64_t>(status.st_size)});
}

void AddFolder(const fs::path& folder, const std::optional<FileId>& output, FileList& list) {
  std::error_code error;
  fs::directory_iterator entry(folder, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    std::error_code ignored;  // an entry that has just gone is no regular file and no folder
    const fs::file_status status = entry->symlink_status(ignored);
    if (fs::is_directory(status)) {
      AddFolder(entry->path(), output, list);
    } else if (fs::is_regular_file(status)) {
      AddFile(entry->path().string(), output, list);
    }
  }
  if (error) {
    list.problems.push_back(folder.string() + ": " + error.message());
  }
}

}  // namespace

FileList ListFiles(const std::string& folder) {
  FileList list;
  AddFolder(folder, StandardOutput(), list);
  std::sort(list.files.begin(), list.files.end(),
            [](const File& a, const File& b) { return a.path < b.path; });
  return list;
}

}  // namespace checksums
