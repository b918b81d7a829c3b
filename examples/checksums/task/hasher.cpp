#include "hasher.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

namespace checksums {
namespace {

constexpr qint64 kSliceSize = 1 << 20;       // a few milliseconds of hashing
constexpr qint64 kProgressIntervalMs = 100;  // what an eye can follow

std::vector<std::uint8_t> ToBytes(const QByteArray& bytes) { return {bytes.begin(), bytes.end()}; }

}  // namespace

Hasher::Hasher() {
  QObject::connect(&next_slice_, &QTimer::timeout, &next_slice_, [this] { HashSlice(); });
  since_progress_.start();
}

void Hasher::Add(HashJob job) {
  waiting_.push_back(std::move(job));
  next_slice_.start(0);
}

void Hasher::DropAll() {
  next_slice_.stop();
  if (current_) {
    waiting_.push_front(FinishCurrent());
  }
  for (const HashJob& job : std::exchange(waiting_, {})) {
    job.on_dropped();
  }
}

void Hasher::HashSlice() {
  if (!current_ && !OpenNext()) {
    return;
  }
  errno = 0;
  const QByteArray slice = current_->file.read(kSliceSize);
  if (current_->file.error() != QFile::NoError) {
    const int error = errno;
    FinishCurrent().on_failed(error);
  } else if (slice.isEmpty()) {
    const QByteArray result = current_->hash.result();
    FinishCurrent().on_done(ToBytes(result));
  } else {
    current_->hash.addData(slice);
    ReportProgress();
  }
}

bool Hasher::OpenNext() {
  if (waiting_.empty()) {
    next_slice_.stop();
    return false;
  }
  current_ = std::make_unique<Work>(std::move(waiting_.front()));
  waiting_.pop_front();
  // Opened by its bytes: a path need not be text, which is all that QFile takes.
  const int descriptor = open(current_->job.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    const int error = errno;
    FinishCurrent().on_failed(error);
    return false;
  }
  return current_->file.open(descriptor, QIODevice::ReadOnly | QIODevice::Unbuffered,
                             QFileDevice::AutoCloseHandle);
}

void Hasher::ReportProgress() {
  if (since_progress_.elapsed() >= kProgressIntervalMs) {
    since_progress_.restart();
    current_->job.on_progress(static_cast<std::uint64_t>(current_->file.pos()));
  }
}

HashJob Hasher::FinishCurrent() { return std::move(std::exchange(current_, nullptr)->job); }

}  // namespace checksums
