// A disk of a few pages and files, so that a test can fill it.
#ifndef TORTURE_PROCESSES_SMALL_DISK_H
#define TORTURE_PROCESSES_SMALL_DISK_H

#include <filesystem>
#include <string>

namespace tarv::test {

// Mounted on a folder in a mount namespace of the process's own, where nobody else sees it. Goes with
// the object.
class SmallDisk {
 public:
  explicit SmallDisk(std::filesystem::path folder);
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  // Why there is none: mounting needs root, and a container may forbid it. Empty when there is one.
  const std::string& WhyNot() const { return why_not_; }
  const std::filesystem::path& GetPath() const { return path_; }

  // Takes every file that the disk has room for, or every byte.
  void FillWithFiles() const;
  void FillWithBytes() const;
  // Gives all of it back.
  void Clear() const;

 private:
  std::filesystem::path path_;
  std::string why_not_;
};

}  // namespace tarv::test

#endif  // TORTURE_PROCESSES_SMALL_DISK_H
