#include "meter.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace tarv::details {

namespace {

// Where durations below this many nanoseconds, 2 to the 6th, count as one.
constexpr int kFirstPower = 6;

// A size as the codec writes it: 1, 3 or 5 bytes.
std::size_t BytesOfSize(std::size_t size) { return size < 254 ? 1 : size < 65536 ? 3 : 5; }

template <class T>
std::size_t BytesOfNumbers(const std::vector<T>& list) {
  return BytesOfSize(list.size()) + list.size() * sizeof(T);
}

struct ByteCounter {
  std::size_t operator()(std::monostate /*null*/) const { return 0; }
  std::size_t operator()(bool /*value*/) const { return 0; }
  std::size_t operator()(const std::string& text) const {
    return BytesOfSize(text.size()) + text.size();
  }
  template <class T>
  std::size_t operator()(const std::vector<T>& list) const {
    return BytesOfNumbers(list);
  }
  std::size_t operator()(const cw::EncodableList& list) const {
    std::size_t sum = BytesOfSize(list.size());
    for (const cw::EncodableValue& element : list) {
      sum += CountBytes(element);
    }
    return sum;
  }
  std::size_t operator()(const cw::EncodableMap& map) const {
    std::size_t sum = BytesOfSize(map.size());
    for (const auto& [key, mapped] : map) {
      sum += CountBytes(key) + CountBytes(mapped);
    }
    return sum;
  }
  std::size_t operator()(const cw::CustomEncodableValue& /*value*/) const { return 0; }
  template <class T>
  std::size_t operator()(const T& /*number*/) const {
    return sizeof(T);
  }
};

MethodMetrics Summarize(const MethodMeter& meter) {
  MethodMetrics metrics;
  metrics.calls = meter.calls;
  for (std::size_t i = 0; i < meter.ends.size(); ++i) {
    if (meter.ends[i] > 0) {
      metrics.ends[i == 0 ? "kValue" : std::string(NameOf(static_cast<CallReason>(i - 1)))] =
          meter.ends[i];
    }
  }
  metrics.in_flight = meter.in_flight;
  metrics.most_in_flight = meter.most_in_flight;
  metrics.median_ns = meter.durations.FindQuantile(0.5);
  metrics.p99_ns = meter.durations.FindQuantile(0.99);
  metrics.bytes_sent = meter.bytes_sent;
  metrics.bytes_received = meter.bytes_received;
  return metrics;
}

}  // namespace

void Histogram::Add(Duration duration) {
  const auto nanoseconds = static_cast<double>(std::max<Duration::rep>(duration.count(), 1));
  int power = 0;
  const double fraction = std::frexp(nanoseconds, &power) * 2 - 1;  // 0 up to 1
  const auto step = static_cast<std::size_t>(fraction * kSteps);
  const auto row = static_cast<std::size_t>(std::clamp(power - kFirstPower, 0, int{kPowers} - 1));
  ++counts_[row * kSteps + step];
  ++total_;
}

std::uint64_t Histogram::FindQuantile(double share) const {
  const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(total_)));
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < counts_.size() && wanted > 0; ++i) {
    seen += counts_[i];
    if (seen >= wanted) {
      const double upper = 1 + static_cast<double>(i % kSteps + 1) / kSteps;
      return static_cast<std::uint64_t>(
          std::ldexp(upper, static_cast<int>(i / kSteps) + kFirstPower - 1));
    }
  }
  return 0;
}

MethodMeter* Meter::Find(std::string_view method) {
  const std::lock_guard lock(mutex_);
  auto found = methods_.find(method);
  if (found == methods_.end()) {
    found = methods_.try_emplace(std::string(method)).first;
  }
  return &found->second;
}

void Meter::Begin(MethodMeter* method) {
  const std::lock_guard lock(mutex_);
  ++method->calls;
  method->most_in_flight = std::max(method->most_in_flight, ++method->in_flight);
}

void Meter::AddBytes(MethodMeter* method, std::size_t sent, std::size_t received) {
  const std::lock_guard lock(mutex_);
  method->bytes_sent += sent;
  method->bytes_received += received;
}

void Meter::End(MethodMeter* method, std::optional<CallReason> error, Duration duration) {
  const std::lock_guard lock(mutex_);
  --method->in_flight;
  ++method->ends[error ? 1 + static_cast<std::size_t>(*error) : 0];
  method->durations.Add(duration);
}

Metrics Meter::GetMetrics() const {
  const std::lock_guard lock(mutex_);
  Metrics metrics;
  for (const auto& [name, meter] : methods_) {
    metrics.methods.emplace(name, Summarize(meter));
  }
  return metrics;
}

std::size_t CountBytes(const cw::EncodableValue& value) {
  const cw::internal::EncodableVariant& kinds = value;
  return 1 + std::visit(ByteCounter(), kinds);
}

}  // namespace tarv::details
