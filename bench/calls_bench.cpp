// A typed call beside a plain request with an equal map, to the same task in a process of its own:
// what the layer of calls costs.
#include <quarn/dispatcher.h>
#include <tarv/calls/caller.h>
#include <tarv/manager_wrapper.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>

#include "bench.h"
#include "calls_task.h"

namespace tarv::bench {
namespace {

constexpr int kRequests = 200;  // of one iteration, one after another

struct Connection {
  std::unique_ptr<ManagerWrapper> manager =
      ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LIBRARY_FOLDER);
  std::shared_ptr<vorpc::IClient> client = manager->CreateIpcClient("bench_calls");
  Caller caller{client, CallerOptions().TaskName("bench_calls")};
};

Connection& GetConnection() {
  static Connection connection;
  return connection;
}

[[noreturn]] void Die(const char* what) {
  std::fprintf(stderr, "calls_bench: %s\n", what);
  std::exit(EXIT_FAILURE);
}

void RunChain(benchmark::State& state,
              const std::function<void(const std::function<void()>& on_answer)>& send) {
  for (auto _ : state) {
    int count = kRequests;
    QEventLoop loop;
    const std::function<void()> on_answer = [&] { --count > 0 ? send(on_answer) : loop.quit(); };
    send(on_answer);
    loop.exec();
  }
  state.SetItemsProcessed(state.iterations() * kRequests);
}

void PlainRequest(benchmark::State& state) {
  RunChain(state, [](const std::function<void()>& on_answer) {
    const std::vector<std::int32_t> list{1, 2, 3, 4};
    GetConnection().client->SendRequest(
        kPlain, cw::EncodableMap{{"number", 7}, {"name", "a parcel"}, {"list", list}},
        [&on_answer](const vorpc::Message::Response& response) {
          const auto* const result = response.GetResult();
          if (result == nullptr || result->Find<std::int32_t>("number") == nullptr) {
            Die("a plain request fails");
          }
          const Parcel parcel{*result->Find<std::int32_t>("number"),
                              *result->Find<std::string>("name"),
                              *result->Find<std::vector<std::int32_t>>("list")};
          benchmark::DoNotOptimize(&parcel);
          on_answer();
        });
  });
}
BENCHMARK(PlainRequest)->UseRealTime()->Unit(benchmark::kMicrosecond);

void TypedCall(benchmark::State& state) {
  RunChain(state, [](const std::function<void()>& on_answer) {
    GetConnection()
        .caller.Call(kTyped, {7, "a parcel", {1, 2, 3, 4}})
        .Then([&on_answer](const Outcome<Parcel>& outcome) {
          if (!outcome) {
            Die(outcome.GetError().what());
          }
          on_answer();
        });
  });
}
BENCHMARK(TypedCall)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace tarv::bench

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  return tarv::bench::RunBenchmarks(argc, argv);
}
