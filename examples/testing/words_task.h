// The task: counts words. It knows nothing of the process that it runs in.
#ifndef EXAMPLE_TESTING_WORDS_TASK_H
#define EXAMPLE_TESTING_WORDS_TASK_H

#include <tarv/calls/service.h>

#include <cstdint>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "history.h"
#include "words.h"

namespace words {

class WordsTask {
 public:
  explicit WordsTask(const std::shared_ptr<vorpc::IServer>& server,
                     std::shared_ptr<tarv::Loop> loop = tarv::Loop::OfThisThread())
      : service_(tarv::Service::For(server, std::move(loop))) {
    service_->On(kAdd, [this](const Piece& piece) { return Add(piece); });
    service_->Run();
  }

 private:
  std::int64_t Add(const Piece& piece) {
    const bool is_new = seen_.insert(piece.number).second;
    if (is_new || Has(Bug::kCountsTwice)) {
      std::istringstream stream(piece.text);
      using Word = std::istream_iterator<std::string>;
      total_ += std::distance(Word(stream), Word());
    }
    return total_;
  }

  std::shared_ptr<tarv::Service> service_;
  std::set<std::int64_t> seen_;
  std::int64_t total_ = 0;
};

}  // namespace words

#endif  // EXAMPLE_TESTING_WORDS_TASK_H
