// Messages of every kind for property tests.
#ifndef VORPC_TESTS_RANDOM_MESSAGES_H
#define VORPC_TESTS_RANDOM_MESSAGES_H

#include <vorpc/message.h>

#include <cstdint>
#include <string>

#include "support/random_value.h"

namespace vorpc::test_support {

// The same seed gives the same messages.
class RandomMessages {
 public:
  explicit RandomMessages(std::uint64_t seed) : values_(seed) {}

  Message Next() {
    switch (values_.Below(5)) {
      case 0:
        return Message::CreateRequest(NextId(), NextName(), values_.Next());
      case 1:
        return Message::CreateResponse(NextId(), values_.Next());
      case 2:
        return Message::CreateNotification(NextName(), values_.Next());
      case 3:
        return Message::CreateError(NextId(), NextCode(), values_.NextText(), values_.Next());
      default:
        return Message::CreateError(NextCode(), values_.NextText(), values_.Next());
    }
  }

  std::string NextDamaged(std::string text) {
    text[Below(text.size())] = static_cast<char>(Below(256));
    return text;
  }

  // A number below `bound`.
  std::size_t Below(std::size_t bound) { return values_.Below(bound); }

 private:
  std::string NextName() { return "m" + values_.NextText(); }
  Message::ID NextId() {
    return values_.Below(2) == 0 ? Message::ID(static_cast<std::int64_t>(values_.Below(1000)))
                                 : Message::ID(NextName());
  }
  std::int32_t NextCode() { return static_cast<std::int32_t>(values_.Below(70000)) - 35000; }

  cw::test_support::RandomValues values_;
};

}  // namespace vorpc::test_support

#endif  // VORPC_TESTS_RANDOM_MESSAGES_H
