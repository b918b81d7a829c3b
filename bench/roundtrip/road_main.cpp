// bench_roundtrip CASE...: measures and prints figures, a line each.
#include <QCoreApplication>
#include <cstdio>
#include <map>
#include <string>

#include "road.h"

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  const std::map<std::string, void (*)()> cases = {
      {"latency", bench::MeasureLatency},      {"pipeline", bench::MeasurePipeline},
      {"notify", bench::MeasureNotifications}, {"large", bench::MeasureLarge},
      {"memory", bench::MeasureMemory},        {"start", bench::MeasureStart},
      {"growth", bench::MeasureGrowth},
  };
  for (int i = 1; i < argc; ++i) {
    const auto found = cases.find(argv[i]);
    if (found == cases.end()) {
      std::fprintf(stderr, "there is no case '%s'; run.py runs them all\n", argv[i]);
      return EXIT_FAILURE;
    }
    found->second();
  }
  return EXIT_SUCCESS;
}
