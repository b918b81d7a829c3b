// Messages through the pump that the client and the server share, one by one, beside a plain call
// of the same function (the floor). Each round of sending and receiving begins with a copy of the
// message, because the pump takes it away; "copy" is that alone.
#include <benchmark/benchmark.h>
#include <receiver.h>

#include <cstdint>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "bench.h"

namespace {

using vorpc::Message;
using vorpc::details::Receiver;
using Send = std::function<void(Message&&)>;
using Filter = std::function<bool(const Message&)>;
using Handler = std::function<void(const Message::Notification&)>;

Message SmallNotification() {
  return Message::CreateNotification("files/status", cw::EncodableMap{{"n", 1}});
}

void Take(Message&& message) { benchmark::DoNotOptimize(message); }
bool TakeFiltered(const Message& message) {
  benchmark::DoNotOptimize(&message);
  return true;
}
void TakeNotification(const Message::Notification& notification) {
  benchmark::DoNotOptimize(&notification);
}

// Runs `round` with a copy of one message as often as the benchmark asks.
template <class Round>
void Measure(benchmark::State& state, const Round& round) {
  const Message message = SmallNotification();
  for (auto _ : state) {
    round(Message(message));
  }
}

void Copy(benchmark::State& state) {
  Measure(state, [](const Message& message) { benchmark::DoNotOptimize(&message); });
}

void SendPlainly(benchmark::State& state) {
  const Send send = &Take;
  Measure(state, [&send](Message&& message) { send(std::move(message)); });
}

void SendImmediately(benchmark::State& state) {
  Receiver receiver(&Take, {});
  Measure(state, [&receiver](Message&& message) { receiver.SendImmediately(std::move(message)); });
}

void SendThroughTheQueue(benchmark::State& state) {
  Receiver receiver(&Take, {});
  receiver.SetQueueEnabled();
  Measure(state, [&receiver](Message&& message) { receiver.Send(std::move(message)); });
}

void FilterPlainly(benchmark::State& state) {
  const Filter filter = &TakeFiltered;
  Measure(state, [&filter](const Message& message) { filter(message); });
}

void ReceiveFiltered(benchmark::State& state) {
  Receiver receiver({}, &TakeFiltered);
  receiver.SetQueueEnabled();
  Measure(state, [&receiver](Message&& message) { receiver.Receive(std::move(message)); });
}

void NotifyPlainly(benchmark::State& state) {
  const std::vector<Handler> handlers(static_cast<std::size_t>(state.range(0)), &TakeNotification);
  Measure(state, [&handlers](const Message& message) {
    for (const Handler& handler : handlers) {
      handler(*message.GetNotification());
    }
  });
}

void ReceiveNotification(benchmark::State& state) {
  Receiver receiver({}, {});
  receiver.SetQueueEnabled();
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    receiver.OnNotify("files/status", &TakeNotification);
  }
  Measure(state, [&receiver](Message&& message) { receiver.Receive(std::move(message)); });
}

}  // namespace

int main(int argc, char** argv) {
  // The library leaves atomic instructions out as long as a process has one thread.
  std::thread([] {}).join();
  benchmark::RegisterBenchmark("copy", &Copy);
  benchmark::RegisterBenchmark("send/plain call", &SendPlainly);
  benchmark::RegisterBenchmark("send/immediately", &SendImmediately);
  benchmark::RegisterBenchmark("send/through the queue", &SendThroughTheQueue);
  benchmark::RegisterBenchmark("receive/plain call of a filter", &FilterPlainly);
  benchmark::RegisterBenchmark("receive/with a filter", &ReceiveFiltered);
  benchmark::RegisterBenchmark("notification/plain calls", &NotifyPlainly)->Arg(1)->Arg(10);
  benchmark::RegisterBenchmark("notification/handlers", &ReceiveNotification)->Arg(1)->Arg(10);
  return tarv::bench::RunBenchmarks(argc, argv);
}
