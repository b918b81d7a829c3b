// tarv::Metrics: how the calls of a Caller, or the requests of a Service, have gone.
#ifndef TARV_CALLS_METRICS_H
#define TARV_CALLS_METRICS_H

#include <cw/encodable_value.h>
#include <tarv/calls/value.h>

#include <cstdint>
#include <map>
#include <string>

namespace tarv {

// One method. Times are from the call, or the arrival of the request, to its end; they are kept in
// steps of a sixteenth, so the two given here are exact to about 6 %.
struct MethodMetrics {
  std::uint64_t calls = 0;
  // By what they ended with: "kValue" for a value, "kTimedOut" and so on for an error. A Service
  // knows "kValue", "kCancelled" and, for every other error, "kAnswered".
  std::map<std::string, std::uint64_t> ends;
  std::uint64_t in_flight = 0;       // begun and not ended
  std::uint64_t most_in_flight = 0;  // the most there were at one time
  std::uint64_t median_ns = 0;
  std::uint64_t p99_ns = 0;  // nanoseconds that 99 % of the calls stayed within
  // Parameters and results in the codec's bytes, without the message around them and its Base64.
  std::uint64_t bytes_sent = 0;
  std::uint64_t bytes_received = 0;
};
TARV_VALUE(MethodMetrics, calls, ends, in_flight, most_in_flight, median_ns, p99_ns, bytes_sent,
           bytes_received)

// A value, by method's name; ToEncodable gives what a message or a method channel carries.
struct Metrics {
  std::map<std::string, MethodMetrics> methods;
};
TARV_VALUE(Metrics, methods)

}  // namespace tarv

#endif  // TARV_CALLS_METRICS_H
