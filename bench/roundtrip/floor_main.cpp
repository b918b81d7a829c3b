// bench_floors CASE...: what the machine and Qt alone take, a line a figure.
#include <QCoreApplication>
#include <csignal>
#include <cstdio>
#include <map>
#include <string>

#include "floor.h"

namespace {

// bench_floors --child MODE ARGUMENT...
int RunChild(int argc, char** argv) {
  const std::string mode = argv[2];
  if (mode == "whole" || mode == "stream") {
    return bench::RunRawChild(mode, std::stoul(argv[3]));
  }
  return bench::RunQtChild(argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  if (argc > 3 && std::string(argv[1]) == "--child") {
    return RunChild(argc, argv);
  }
  const QCoreApplication application(argc, argv);
  const std::multimap<std::string, void (*)()> cases = {
      {"latency", bench::MeasureRawLatency},     {"latency", bench::MeasureQtLatency},
      {"pipeline", bench::MeasureRawPipeline},   {"pipeline", bench::MeasureQtPipeline},
      {"notify", bench::MeasureQtNotifications}, {"large", bench::MeasureRawLarge},
      {"large", bench::MeasureQtLarge},          {"start", bench::MeasureBareStarts},
  };
  for (int i = 1; i < argc; ++i) {
    const auto [first, last] = cases.equal_range(argv[i]);
    if (first == last) {
      std::fprintf(stderr, "there is no case '%s'; run.py runs them all\n", argv[i]);
      return EXIT_FAILURE;
    }
    for (auto found = first; found != last; ++found) {
      found->second();
    }
  }
  return EXIT_SUCCESS;
}
