#include "request_id.h"

#include <atomic>
#include <random>
#include <string>

namespace vorpc::details {
namespace {

// Tells the ids of this process from those of another one that talks to the same server. No secret.
std::string CreateIdPrefix() {
  std::random_device device("default");
  std::mt19937 engine(device());
  std::uniform_int_distribution<int> distribution(1, 1000);
  return "id" + std::to_string(distribution(engine)) + "_";
}

}  // namespace

std::uint64_t NextRequestNumber() {
  static std::atomic<std::uint64_t> counter{0};
  return ++counter;
}

Message::ID CreateRequestId(std::uint64_t number) {
  static const std::string kPrefix = CreateIdPrefix();
  return Message::ID(kPrefix + std::to_string(number));
}

}  // namespace vorpc::details
