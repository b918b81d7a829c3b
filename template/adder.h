// What the task does, apart from the process that it runs in: so tests can do it, too.
#ifndef MY_APP_ADDER_H
#define MY_APP_ADDER_H

#include <tarv/calls/service.h>

#include <cstdint>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

#include "names.h"

namespace my_app {

// Answers on the loop of this thread, unless a test gives it one of its own.
class Adder {
 public:
  explicit Adder(const std::shared_ptr<vorpc::IServer>& server,
                 std::shared_ptr<tarv::Loop> loop = tarv::Loop::OfThisThread())
      : service_(tarv::Service::For(server, std::move(loop))) {
    service_->On(kAdd, [](const std::vector<std::int32_t>& numbers) {
      if (numbers.empty()) {
        throw tarv::RequestError(tarv::kInvalidParams, "expected numbers to add");
      }
      return std::accumulate(numbers.begin(), numbers.end(), std::int32_t{0});
    });
    service_->Run();
  }

 private:
  std::shared_ptr<tarv::Service> service_;
};

}  // namespace my_app

#endif  // MY_APP_ADDER_H
