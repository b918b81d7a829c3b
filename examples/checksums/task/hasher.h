// Hashes files a slice at a time, so that the event loop always has an ear for the next message.
#ifndef CHECKSUMS_HASHER_H
#define CHECKSUMS_HASHER_H

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QTimer>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace checksums {

// One file to hash, and who wants to know.
struct HashJob {
  std::string path;
  std::function<void(std::uint64_t bytes)> on_progress;  // from time to time
  std::function<void(std::vector<std::uint8_t> sha256)> on_done;
  std::function<void(int error_number)> on_failed;
  std::function<void()> on_dropped;
};

// Calls exactly one of a job's last three functions. Belongs to the thread whose event loop drives
// it.
class Hasher {
 public:
  Hasher();

  void Add(HashJob job);
  // Drops every job that is not done.
  void DropAll();

 private:
  struct Work {
    explicit Work(HashJob work_job) : job(std::move(work_job)) {}
    HashJob job;
    QFile file;
    QCryptographicHash hash{QCryptographicHash::Sha256};
  };

  void HashSlice();
  bool OpenNext();
  void ReportProgress();
  HashJob FinishCurrent();

  std::deque<HashJob> waiting_;
  std::unique_ptr<Work> current_;
  QTimer next_slice_;
  QElapsedTimer since_progress_;
};

}  // namespace checksums

#endif  // CHECKSUMS_HASHER_H
