#include "codec_registry.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>

namespace cw::internal {
namespace {

// Each is a codec of its own.
struct Codec {};

TEST(CodecRegistry, LetsNoOtherThreadMakeACodecThatIsBeingMade) {
  const StandardCodecSerializer serializer;
  CodecRegistry<Codec> registry;
  std::promise<void> made_again;
  const Codec* found_by_other = nullptr;
  std::thread other;
  const auto make = [&](const StandardCodecSerializer* /*serializer*/) {
    other = std::thread([&] {
      found_by_other = &registry.Get(&serializer, [&](const StandardCodecSerializer* /*again*/) {
        made_again.set_value();
        return std::make_unique<const Codec>();
      });
    });
    // Time enough for a thread that nothing stops; one that waits for the lock comes later.
    EXPECT_EQ(made_again.get_future().wait_for(std::chrono::milliseconds(500)),
              std::future_status::timeout);
    return std::make_unique<const Codec>();
  };
  const Codec* const found = &registry.Get(&serializer, make);
  other.join();
  EXPECT_EQ(found_by_other, found);
}

}  // namespace
}  // namespace cw::internal
