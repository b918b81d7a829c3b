#include "small_disk.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace tarv::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSize = "size=64k,nr_inodes=64,mode=700";

int OpenNew(const fs::path& path) {
  return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
}

fs::path FillerFolder(const fs::path& disk) { return disk / "filler"; }

}  // namespace

SmallDisk::SmallDisk(fs::path folder) : path_(std::move(folder)) {
  fs::create_directory(path_);
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", path_.c_str(), "tmpfs", 0, kSize) != 0) {
    why_not_ = std::string("a file system cannot be mounted here: ") + std::strerror(errno);
    return;
  }
  fs::create_directory(FillerFolder(path_));
}

SmallDisk::~SmallDisk() {
  if (why_not_.empty()) {
    umount2(path_.c_str(), MNT_DETACH);
  }
}

void SmallDisk::FillWithFiles() const {
  int file = 0;
  for (int number = 0; file >= 0; ++number) {
    file = OpenNew(FillerFolder(path_) / std::to_string(number));
    close(file);
  }
}

void SmallDisk::FillWithBytes() const {
  const int file = OpenNew(FillerFolder(path_) / "bytes");
  constexpr std::array<char, 512> kBytes{};
  while (write(file, kBytes.data(), kBytes.size()) > 0) {
  }
  close(file);
}

void SmallDisk::Clear() const {
  for (const auto& entry : fs::directory_iterator(FillerFolder(path_))) {
    fs::remove(entry);
  }
}

}  // namespace tarv::test
