// What the programs of this benchmark share: clocks, memory, the runs that are timed, and the lines
// that run.py reads.
#ifndef BENCH_ROUNDTRIP_MEASURE_H
#define BENCH_ROUNDTRIP_MEASURE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// Says what failed, with errno, and ends the program: a figure without its run is worth nothing.
[[noreturn]] void Die(const std::string& what);

std::uint64_t NowNs();

// Where a figure belongs in the table.
struct Row {
  std::string section;
  std::string kase;
  std::string peer;
};

// Prints one figure: section, case, peer, metric, value, unit, separated by tabs.
void Record(const Row& row, const std::string& metric, double value, const std::string& unit);

// CPU time, user and system, of this process and of the given ones.
class CpuMeter {
 public:
  explicit CpuMeter(const std::vector<pid_t>& others);
  std::uint64_t Ns() const;

 private:
  std::vector<clockid_t> clocks_;
};

// The most memory that a process has held so far, in bytes. 0 is this process.
std::size_t PeakMemory(pid_t process);

// The same amount of work for everybody.
constexpr std::size_t kWarmup = 2000;
constexpr std::size_t kRoundTrips = 20000;
constexpr std::size_t kPipelined = 40000;
constexpr std::size_t kWindow = 64;
constexpr std::size_t kNotifications = 40000;
constexpr std::size_t kNotificationBatch = 1000;
constexpr std::size_t kMiB = std::size_t{1} << 20U;

struct LargeCase {
  const char* name;
  std::size_t bytes;
  std::size_t warmup;
  std::size_t count;
};
constexpr LargeCase kLargeCases[] = {{"64 KiB", kMiB / 16, 100, 500},
                                     {"256 KiB", kMiB / 4, 30, 200},
                                     {"1 MiB", kMiB, 10, 60},
                                     {"16 MiB", 16 * kMiB, 2, 4}};

// The names of the cases: whether all processes share one CPU, and whether the C library keeps
// freed memory, decides more than most code does.
std::string CaseName(const std::string& name);
std::string CaseName(const LargeCase& large);

// One request in flight: Start() before a request, Stop() after its answer.
class LatencyRun {
 public:
  LatencyRun(std::size_t warmup, std::size_t count, const std::vector<pid_t>& others);
  void Start();
  // False once the last answer is in.
  bool Stop();
  double MedianUs() const { return PercentileUs(0.5); }
  // The median, the 99th percentile and the CPU time of a request.
  void Report(const Row& row) const;

 private:
  double PercentileUs(double part) const;

  std::size_t warmup_;
  std::size_t count_;
  std::size_t done_ = 0;
  CpuMeter cpu_;
  std::uint64_t started_ = 0;
  std::uint64_t cpu_before_ = 0;
  std::uint64_t cpu_after_ = 0;
  std::vector<std::uint64_t> samples_;
};

// A number of requests in flight: send while MaySend(), tell it of every answer.
class PipelineRun {
 public:
  PipelineRun(std::size_t count, std::size_t window, const std::vector<pid_t>& others);
  bool MaySend() const { return sent_ < total_ && sent_ - received_ < window_; }
  void OnSent() { ++sent_; }
  // False once the last answer is in.
  bool OnReceived();
  bool IsFinished() const { return received_ == total_; }
  // The rate and the CPU time of a request.
  void Report(const Row& row) const;

 private:
  std::size_t total_;
  std::size_t window_;
  std::size_t sent_ = 0;
  std::size_t received_ = 0;
  CpuMeter cpu_;
  std::uint64_t time_before_ = 0;
  std::uint64_t time_after_ = 0;
  std::uint64_t cpu_before_ = 0;
  std::uint64_t cpu_after_ = 0;
};

// What starts a number of times, after a few that do not count: the median and the 90th percentile.
class StartRun {
 public:
  // True as long as another start is wanted.
  bool IsWanted() const { return samples_.size() < kStarts; }
  void Add(std::uint64_t ns);
  void Report(const Row& row) const;

 private:
  static constexpr std::size_t kStarts = 40;
  static constexpr std::size_t kWarmStarts = 3;
  std::size_t warm_ = 0;
  std::vector<std::uint64_t> samples_;
};

}  // namespace bench

#endif  // BENCH_ROUNDTRIP_MEASURE_H
