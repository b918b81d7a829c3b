#include "road.h"

#include <quarn/dispatcher.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <cerrno>
#include <csignal>
#include <optional>
#include <utility>

namespace bench {
namespace {

using cw::EncodableMap;
using cw::EncodableValue;
using Response = vorpc::Message::Response;
using Bytes = std::vector<std::uint8_t>;

const EncodableValue& ResultOf(const Response& response) {
  errno = 0;
  if (!response.HasResult()) {
    Die("the task answers with an error");
  }
  return *response.GetResult();
}

EncodableValue MakePayload(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 2654435761U >> 13U);
  }
  return EncodableValue(std::move(bytes));
}

// Sends a payload and runs `on_answer` when it is back. The event loop must run meanwhile.
void SendLarge(Road& road, const EncodableValue& payload, const std::function<void()>& on_answer) {
  const std::size_t size = std::get<Bytes>(payload).size();
  road.Client().SendRequest("echo_payload", payload, [&on_answer, size](const Response& response) {
    if (std::get<Bytes>(ResultOf(response)).size() != size) {
      Die("another size comes back");
    }
    on_answer();
  });
}

// Until the runtime manager has reaped the process.
void WaitForEnd(pid_t process) {
  while (::kill(process, 0) == 0) {
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
  }
}

}  // namespace

std::string LibraryFolder() { return LIBRARY_FOLDER; }

std::unique_ptr<tarv::ManagerWrapper> MakeManager() {
  auto manager = tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LibraryFolder());
  if (!manager) {
    Die("no manager");
  }
  return manager;
}

Road::Road(const tarv::ManagerWrapper& manager) : client_(manager.CreateIpcClient(kTask)) {
  if (!client_) {
    Die("no client");
  }
  QEventLoop loop;
  client_->OnConnected([&loop](const std::optional<vorpc::Message::Error>& error) {
    if (error) {
      Die("cannot connect: " + error->message);
    }
    loop.quit();
  });
  client_->Run();
  loop.exec();
  client_->OnDisconnected([](const auto& /*error*/) {
    if (!QCoreApplication::closingDown()) {
      Die("the task is gone");
    }
  });
}

EncodableValue Road::Ask(const std::string& method, const EncodableValue& params) {
  QEventLoop loop;
  EncodableValue result;
  client_->SendRequest(method, params, [&loop, &result](const Response& response) {
    result = ResultOf(response);
    loop.quit();
  });
  loop.exec();
  return result;
}

void Road::SendSmall(const std::function<void()>& on_answer) {
  client_->SendRequest("echo_integer", EncodableMap{{"n", 1}},
                       [&on_answer](const Response& response) {
                         if (ResultOf(response).AsInt64() != 1) {
                           Die("the answer is not 1");
                         }
                         on_answer();
                       });
}

void Road::RunSmall(LatencyRun& run) {
  QEventLoop loop;
  std::function<void()> on_answer;
  const auto send = [this, &run, &on_answer] {
    run.Start();
    SendSmall(on_answer);
  };
  on_answer = [&run, &loop, &send] { run.Stop() ? send() : loop.quit(); };
  send();
  loop.exec();
}

void MeasureLatency() {
  const auto manager = MakeManager();
  Road road(*manager);
  LatencyRun run(kWarmup, kRoundTrips, {road.TaskProcess()});
  road.RunSmall(run);
  run.Report({"A", CaseName("round trip"), kRoad});
}

void MeasurePipeline() {
  const auto manager = MakeManager();
  Road road(*manager);
  PipelineRun run(kPipelined, kWindow, {road.TaskProcess()});
  std::function<void()> on_answer;
  const auto fill = [&road, &run, &on_answer] {
    for (; run.MaySend(); run.OnSent()) {
      road.SendSmall(on_answer);
    }
  };
  QEventLoop loop;
  on_answer = [&run, &loop, &fill] { run.OnReceived() ? fill() : loop.quit(); };
  fill();
  loop.exec();
  run.Report({"B", CaseName("pipelined x64"), kRoad});
}

// Batches, each ended by a request: its answer says that the batch has been heard.
void MeasureNotifications() {
  const auto manager = MakeManager();
  Road road(*manager);
  const pid_t task = road.TaskProcess();
  const EncodableValue params = EncodableMap{{"n", 1}};
  PipelineRun run(kNotifications, kNotificationBatch, {task});
  while (!run.IsFinished()) {
    std::size_t sent = 0;
    for (; run.MaySend(); run.OnSent(), ++sent) {
      road.Client().SendNotify("notification", params);
    }
    road.Ask("count_heard");
    for (; sent > 0; --sent) {
      run.OnReceived();
    }
  }
  const EncodableValue heard = road.Ask("count_heard");
  if (heard.AsInt64() != static_cast<std::int64_t>(kWarmup + kNotifications)) {
    Die("some are lost");
  }
  run.Report({"N", CaseName("notifications, one way"), kRoad});
}

void MeasureLarge() {
  const auto manager = MakeManager();
  for (const LargeCase& large : kLargeCases) {
    Road road(*manager);
    LatencyRun run(large.warmup, large.count, {road.TaskProcess()});
    const EncodableValue payload = MakePayload(large.bytes);
    QEventLoop loop;
    std::function<void()> on_answer;
    const auto send = [&road, &run, &payload, &on_answer] {
      run.Start();
      SendLarge(road, payload, on_answer);
    };
    on_answer = [&run, &loop, &send] { run.Stop() ? send() : loop.quit(); };
    send();
    loop.exec();
    run.Report({"C", CaseName(large), kRoad});
  }
}

void MeasureMemory() {
  constexpr std::size_t kSize = 16 * kMiB;
  const auto manager = MakeManager();
  Road road(*manager);
  const pid_t task = road.TaskProcess();
  const auto report = [task](const std::string& kase) {
    const Row row{"M", kase, kRoad};
    const auto application = static_cast<double>(PeakMemory(0));
    const auto its_task = static_cast<double>(PeakMemory(task));
    Record(row, "application", application / kMiB, "MiB");
    Record(row, "task", its_task / kMiB, "MiB");
    Record(row, "both", (application + its_task) / kMiB, "MiB");
  };
  report("peak memory, connected");
  QEventLoop loop;
  const std::function<void()> on_answer = [&loop] { loop.quit(); };
  SendLarge(road, MakePayload(kSize), on_answer);  // the sender keeps nothing
  loop.exec();
  report("peak memory, one payload of 16 MiB there and back");
}

void MeasureStart() {
  const auto manager = MakeManager();
  StartRun run;
  while (run.IsWanted()) {
    const std::uint64_t began = NowNs();
    auto road = std::make_unique<Road>(*manager);
    run.Add(NowNs() - began);
    // As the floors do: the end of one process takes no time of the next one's start.
    const pid_t task = road->TaskProcess();
    road.reset();
    WaitForEnd(task);
  }
  run.Report({"G", CaseName("start"), "tarv, start of a task to its connection"});
}

}  // namespace bench
