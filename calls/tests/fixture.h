// What the tests of this folder stand on: both ends of the layer, connected.
#ifndef CALLS_TESTS_FIXTURE_H
#define CALLS_TESTS_FIXTURE_H

#include <gtest/gtest.h>
#include <tarv/calls/caller.h>
#include <tarv/calls/service.h>

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "link.h"
#include "values.h"

namespace tarv::test {

// An application with a Caller, a task with a Service.
class CallsTest : public testing::Test {
 protected:
  CallsTest() {
    service_->Run();
    link_.Pump();
  }

  // Until the condition holds; the test's limit ends it otherwise.
  void PumpUntil(const std::function<bool()>& condition) const {
    while (!condition()) {
      link_.Pump();
      std::this_thread::yield();
    }
  }
  template <class Result>
  void PumpUntilEnd(const Ending<Result>& ending) const {
    PumpUntil([&ending] { return ending.Count() > 0; });
  }

  // Has the method "ping" keep its requests, until the test answers them.
  void KeepPings() {
    service_->On(counting::kPing,
                 [this](const Request<void>& request) { open_.push_back(request); });
  }

  Link link_;
  std::shared_ptr<Service> service_ = Service::For(link_.server, link_.loop);
  std::unique_ptr<Caller> caller_ =
      std::make_unique<Caller>(link_.client, link_.loop, CallerOptions().TaskName("words"));
  std::vector<Request<void>> open_;
};

}  // namespace tarv::test

#endif  // CALLS_TESTS_FIXTURE_H
