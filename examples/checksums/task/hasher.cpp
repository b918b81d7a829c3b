#include "hasher.h"

#include <fcntl.h>

#include <QCryptographicHash>
#include <QFile>
#include <cerrno>
#include <system_error>

namespace checksums {
namespace {

constexpr qint64 kSliceSize = 1 << 20;  // a few milliseconds of hashing

[[noreturn]] void ThrowErrno() { throw std::system_error(errno, std::generic_category()); }

}  // namespace

std::vector<std::uint8_t> HashFile(const std::string& path,
                                   const std::function<bool(std::int64_t bytes)>& go_on) {
  // Opened by its bytes: a path need not be text, which is all that QFile takes.
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  QFile file;
  if (descriptor < 0 || !file.open(descriptor, QIODevice::ReadOnly | QIODevice::Unbuffered,
                                   QFileDevice::AutoCloseHandle)) {
    ThrowErrno();
  }
  QCryptographicHash hash(QCryptographicHash::Sha256);
  for (QByteArray slice = file.read(kSliceSize); !slice.isEmpty(); slice = file.read(kSliceSize)) {
    hash.addData(slice);
    if (!go_on(file.pos())) {
      return {};
    }
  }
  if (file.error() != QFile::NoError) {
    ThrowErrno();
  }
  const QByteArray result = hash.result();
  return {result.begin(), result.end()};
}

}  // namespace checksums
