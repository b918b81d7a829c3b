// The road of a message: an application and its tasks over wrapper, JSON-RPC, codec, Base64,
// service, runtime manager and sockets.
#ifndef BENCH_ROUNDTRIP_ROAD_H
#define BENCH_ROUNDTRIP_ROAD_H

#include <tarv/manager_wrapper.h>
#include <vorpc/client.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "measure.h"

namespace bench {

// The task that all cases start.
constexpr char kTask[] = "bench_echo";
constexpr char kRoad[] = "tarv, the whole road";

// The folder that libtarv.so lies in.
std::string LibraryFolder();

std::unique_ptr<tarv::ManagerWrapper> MakeManager();

// A connected task.
class Road {
 public:
  explicit Road(const tarv::ManagerWrapper& manager);

  vorpc::IClient& Client() { return *client_; }
  pid_t TaskProcess() { return static_cast<pid_t>(*Ask("process").AsInt64()); }
  // Sends a request and runs the event loop until its result is there. Ends the program for an
  // error.
  cw::EncodableValue Ask(const std::string& method, const cw::EncodableValue& params = {});
  // Sends the small request; `on_answer` must be kept alive by the caller.
  void SendSmall(const std::function<void()>& on_answer);
  // Measures small requests, one in flight.
  void RunSmall(LatencyRun& run);

 private:
  std::shared_ptr<vorpc::IClient> client_;
};

void MeasureLatency();
void MeasurePipeline();
void MeasureNotifications();
void MeasureLarge();
// The most memory that both processes hold while one payload goes there and back.
void MeasureMemory();
void MeasureStart();
// What a request costs beside many others.
void MeasureGrowth();

}  // namespace bench

#endif  // BENCH_ROUNDTRIP_ROAD_H
