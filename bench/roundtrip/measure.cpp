#include "measure.h"

#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <system_error>

namespace bench {
namespace {

constexpr double kNsPerUs = 1e3;
constexpr double kNsPerSecond = 1e9;

std::uint64_t ReadClock(clockid_t clock) {
  timespec now{};
  if (::clock_gettime(clock, &now) != 0) {
    Die("clock_gettime");
  }
  constexpr std::uint64_t kNsInSecond = 1'000'000'000;
  return static_cast<std::uint64_t>(now.tv_sec) * kNsInSecond +
         static_cast<std::uint64_t>(now.tv_nsec);
}

double Percentile(std::vector<std::uint64_t> values, double part) {
  if (values.empty()) {
    return 0;
  }
  const auto at = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return static_cast<double>(values[static_cast<std::size_t>(at)]);
}

}  // namespace

void Die(const std::string& what) {
  const std::string why = std::generic_category().message(errno);
  std::fprintf(stderr, "%s (errno: %s)\n", what.c_str(), why.c_str());
  std::exit(EXIT_FAILURE);
}

std::uint64_t NowNs() { return ReadClock(CLOCK_MONOTONIC); }

void Record(const Row& row, const std::string& metric, double value, const std::string& unit) {
  std::printf("%s\t%s\t%s\t%s\t%.9g\t%s\n", row.section.c_str(), row.kase.c_str(), row.peer.c_str(),
              metric.c_str(), value, unit.c_str());
  std::fflush(stdout);
}

CpuMeter::CpuMeter(const std::vector<pid_t>& others) : clocks_{CLOCK_PROCESS_CPUTIME_ID} {
  for (const pid_t process : others) {
    clockid_t clock{};
    if (::clock_getcpuclockid(process, &clock) != 0) {
      Die("clock_getcpuclockid");
    }
    clocks_.push_back(clock);
  }
}

std::uint64_t CpuMeter::Ns() const {
  std::uint64_t sum = 0;
  for (const clockid_t clock : clocks_) {
    sum += ReadClock(clock);
  }
  return sum;
}

std::size_t PeakMemory(pid_t process) {
  const std::string who = process == 0 ? "self" : std::to_string(process);
  std::ifstream status("/proc/" + who + "/status");
  constexpr std::size_t kBytesPerUnit = 1024;
  const std::string key = "VmHWM:";
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, key.size(), key) == 0) {
      return std::stoul(line.substr(key.size())) * kBytesPerUnit;
    }
  }
  Die("no VmHWM of process " + who);
}

std::string CaseName(const std::string& name) {
  cpu_set_t set;
  if (::sched_getaffinity(0, sizeof(set), &set) != 0) {
    Die("sched_getaffinity");
  }
  return CPU_COUNT(&set) == 1 ? name + ", all on one CPU" : name;
}

std::string CaseName(const LargeCase& large) {
  const bool is_kept = std::getenv("MALLOC_TRIM_THRESHOLD_") != nullptr;
  return CaseName(std::string(large.name) + (is_kept ? ", heap kept" : ""));
}

LatencyRun::LatencyRun(std::size_t warmup, std::size_t count, const std::vector<pid_t>& others)
    : warmup_(warmup), count_(count), cpu_(others) {
  samples_.reserve(count);
}

void LatencyRun::Start() {
  if (done_ == warmup_) {
    cpu_before_ = cpu_.Ns();
  }
  started_ = NowNs();
}

bool LatencyRun::Stop() {
  const std::uint64_t now = NowNs();
  if (done_ >= warmup_) {
    samples_.push_back(now - started_);
  }
  if (++done_ < warmup_ + count_) {
    return true;
  }
  cpu_after_ = cpu_.Ns();
  return false;
}

double LatencyRun::PercentileUs(double part) const { return Percentile(samples_, part) / kNsPerUs; }

void LatencyRun::Report(const Row& row) const {
  constexpr double kLate = 0.99;
  const double cpu_us = static_cast<double>(cpu_after_ - cpu_before_) / kNsPerUs;
  Record(row, "median", MedianUs(), "us");
  Record(row, "p99", PercentileUs(kLate), "us");
  Record(row, "cpu", cpu_us / static_cast<double>(count_), "us");
}

PipelineRun::PipelineRun(std::size_t count, std::size_t window, const std::vector<pid_t>& others)
    : total_(kWarmup + count), window_(window), cpu_(others) {}

bool PipelineRun::OnReceived() {
  if (++received_ == kWarmup) {
    time_before_ = NowNs();
    cpu_before_ = cpu_.Ns();
  }
  if (received_ < total_) {
    return true;
  }
  time_after_ = NowNs();
  cpu_after_ = cpu_.Ns();
  return false;
}

void PipelineRun::Report(const Row& row) const {
  const auto count = static_cast<double>(total_ - kWarmup);
  Record(row, "rate", count * kNsPerSecond / static_cast<double>(time_after_ - time_before_),
         "req/s");
  Record(row, "cpu", static_cast<double>(cpu_after_ - cpu_before_) / kNsPerUs / count, "us");
}

void StartRun::Add(std::uint64_t ns) {
  if (warm_++ >= kWarmStarts) {
    samples_.push_back(ns);
  }
}

void StartRun::Report(const Row& row) const {
  constexpr double kLate = 0.9;
  Record(row, "median", Percentile(samples_, 0.5) / kNsPerUs, "us");
  Record(row, "p90", Percentile(samples_, kLate) / kNsPerUs, "us");
}

}  // namespace bench
