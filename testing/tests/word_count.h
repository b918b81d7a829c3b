// A small task and its contract, for the tests of the kit.
#ifndef TESTING_TESTS_WORD_COUNT_H
#define TESTING_TESTS_WORD_COUNT_H

#include <tarv/calls/service.h>
#include <tarv/calls/value.h>

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace word_count {

struct Texts {
  std::vector<std::string> texts;
};
struct Totals {
  std::int64_t total;
  std::vector<std::int32_t> each;
};
struct Step {
  std::int32_t done, of;
};
TARV_VALUE(Texts, texts)
TARV_VALUE(Totals, total, each)
TARV_VALUE(Step, done, of)

inline constexpr tarv::Method<Totals(Texts), Step> kCount{"count", "counts the words of each text"};
inline constexpr tarv::Method<void()> kWait{"wait", "never answers"};
// For the real task alone.
inline constexpr tarv::Method<void(std::int32_t)> kExit{"exit", "ends with this status"};
inline constexpr tarv::Method<void(std::string)> kComplain{"complain", "to standard error"};

inline Totals Count(const Texts& texts) {
  Totals totals{};
  for (const std::string& text : texts.texts) {
    std::istringstream words(text);
    std::string word;
    std::int32_t count = 0;
    while (words >> word) {
      ++count;
    }
    totals.each.push_back(count);
    totals.total += count;
  }
  return totals;
}

// Answers the contract on a loop of the caller's.
class WordCount {
 public:
  WordCount(const std::shared_ptr<vorpc::IServer>& server, std::shared_ptr<tarv::Loop> loop)
      : service_(tarv::Service::For(server, std::move(loop))) {
    service_->On(kCount, [](const Texts& texts, const tarv::Request<Totals, Step>& request) {
      request.Progress({0, static_cast<std::int32_t>(texts.texts.size())});
      request.Answer(Count(texts));
    });
    service_->On(kWait,
                 [this](tarv::Request<void> request) { kept_.push_back(std::move(request)); });
    service_->Run();
  }

 private:
  std::shared_ptr<tarv::Service> service_;
  std::vector<tarv::Request<void>> kept_;
};

}  // namespace word_count

#endif  // TESTING_TESTS_WORD_COUNT_H
