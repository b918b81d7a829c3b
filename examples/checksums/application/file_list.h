// The files to hash.
#ifndef CHECKSUMS_FILE_LIST_H
#define CHECKSUMS_FILE_LIST_H

#include <cstdint>
#include <string>
#include <vector>

namespace checksums {

struct File {
  std::string path;  // begins with the folder as it was given
  std::uint64_t size = 0;
};

struct FileList {
  std::vector<File> files;            // every regular file, sorted by path
  std::vector<std::string> problems;  // a line for each folder that could not be read
};

// The files below `folder`, without following links to folders. The file that standard output goes
// to is left out: its contents change while the results are printed.
FileList ListFiles(const std::string& folder);

}  // namespace checksums

#endif  // CHECKSUMS_FILE_LIST_H
