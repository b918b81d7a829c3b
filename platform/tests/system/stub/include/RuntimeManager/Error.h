// A runtime manager as an installed package may bring it: its classes are larger than the bundled
// ones, and with STUB_OPTIONAL_MEMBERS have what a platform may lack.
#ifndef STUB_RUNTIME_MANAGER_ERROR_H
#define STUB_RUNTIME_MANAGER_ERROR_H

#include <QString>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

#define STUB_EXPORT __attribute__((visibility("default")))

namespace RuntimeManager {

class Error {
 public:
  Error() = default;
  Error(int code, QString message) : code_(code), message_(std::move(message)) {}
  bool isError() const { return code_ != 0; }
  int code() const { return code_; }
  QString message() const { return message_; }

 private:
  std::array<char, 256> reserved_{};
  int code_ = 0;
  QString message_;
};

// The end of each class: who compiled against another header reserves no room for it, and it finds
// itself overwritten.
class Reserve {
 public:
  Reserve() { bytes_.fill(kMark); }
  ~Reserve() {
    if (std::any_of(bytes_.begin(), bytes_.end(), [](char byte) { return byte != kMark; })) {
      std::abort();
    }
  }

 private:
  static constexpr char kMark = 0x5A;
  std::array<char, 4096> bytes_;
};

}  // namespace RuntimeManager

#endif  // STUB_RUNTIME_MANAGER_ERROR_H
