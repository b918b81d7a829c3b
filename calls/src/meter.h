// Counts what Metrics tells.
#ifndef TARV_CALLS_SRC_METER_H
#define TARV_CALLS_SRC_METER_H

#include <cw/encodable_value.h>
#include <tarv/calls/call_error.h>
#include <tarv/calls/call_options.h>
#include <tarv/calls/metrics.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tarv::details {

// How often each duration was seen, in steps of a sixteenth of a power of two: a fixed block of
// memory, so that counting takes none.
class Histogram {
 public:
  void Add(Duration duration);
  // The duration that this share of all stayed within, in nanoseconds; 0 without any.
  std::uint64_t FindQuantile(double share) const;

 private:
  static constexpr std::size_t kSteps = 16;
  static constexpr std::size_t kPowers = 48;  // up to three days
  std::array<std::uint32_t, kSteps * kPowers> counts_{};
  std::uint64_t total_ = 0;
};

struct MethodMeter {
  std::uint64_t calls = 0;
  std::array<std::uint64_t, 2 + static_cast<std::size_t>(CallReason::kOutOfMemory)> ends{};
  std::uint64_t in_flight = 0;
  std::uint64_t most_in_flight = 0;
  std::uint64_t bytes_sent = 0;
  std::uint64_t bytes_received = 0;
  Histogram durations;
};

// Any thread. What Find returns is valid as long as the meter; Find alone takes memory.
class Meter {
 public:
  MethodMeter* Find(std::string_view method);
  void Begin(MethodMeter* method);
  void AddBytes(MethodMeter* method, std::size_t sent, std::size_t received);
  void End(MethodMeter* method, std::optional<CallReason> error, Duration duration);
  Metrics GetMetrics() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, MethodMeter, std::less<>> methods_;
};

// The bytes of the value in the standard codec, without padding.
std::size_t CountBytes(const cw::EncodableValue& value);

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_METER_H
