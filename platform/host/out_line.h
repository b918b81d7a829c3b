// A line on its way to the socket.
#ifndef RUNTIME_MANAGER_HOST_OUT_LINE_H
#define RUNTIME_MANAGER_HOST_OUT_LINE_H

#include <sys/uio.h>

#include <QtCore/QByteArray>
#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

#include "envelope.h"

namespace RuntimeManager::host {

// As far as it is not sent yet: a text that stays the caller's, with its envelope around it, or a
// whole line of its own.
class OutLine {
 public:
  // The line of {"data":"text"}; `text` is plain, and outlives the object.
  explicit OutLine(std::string_view text) : parts_{kDataHead, text, kDataEnd} {}
  // A line with its end.
  explicit OutLine(QByteArray whole)
      : whole_(std::move(whole)),
        parts_{std::string_view(whole_.constData(), static_cast<std::size_t>(whole_.size()))} {}
  OutLine(OutLine&&) = default;
  OutLine& operator=(OutLine&&) = delete;
  OutLine(const OutLine&) = delete;
  OutLine& operator=(const OutLine&) = delete;
  ~OutLine() = default;

  std::size_t Size() const { return parts_[0].size() + parts_[1].size() + parts_[2].size(); }
  // Whether it must be copied to be kept.
  bool IsBorrowed() const { return whole_.isNull(); }
  std::array<iovec, 3> Gather() const {
    std::array<iovec, 3> parts{};
    std::transform(parts_.begin(), parts_.end(), parts.begin(), [](std::string_view part) {
      return iovec{const_cast<char*>(part.data()), part.size()};
    });
    return parts;
  }
  // Writes what is left to `out`; returns the end.
  char* CopyTo(char* out) const {
    for (const std::string_view part : parts_) {
      out = std::copy(part.begin(), part.end(), out);
    }
    return out;
  }
  // `size` bytes have been sent.
  void Skip(std::size_t size) {
    for (std::string_view& part : parts_) {
      const std::size_t here = std::min(size, part.size());
      part.remove_prefix(here);
      size -= here;
    }
  }
  void AppendTo(QByteArray* bytes) const {
    for (const std::string_view part : parts_) {
      bytes->append(part.data(), static_cast<int>(part.size()));
    }
  }
  // What is left, as bytes that stay. Throws std::bad_alloc.
  QByteArray Keep() const {
    if (!IsBorrowed() && Size() == static_cast<std::size_t>(whole_.size())) {
      return whole_;
    }
    QByteArray bytes;
    bytes.reserve(static_cast<int>(Size()));
    AppendTo(&bytes);
    return bytes;
  }

 private:
  QByteArray whole_;
  std::array<std::string_view, 3> parts_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_OUT_LINE_H
