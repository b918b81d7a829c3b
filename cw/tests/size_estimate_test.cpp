#include <cw/internal/size_estimate.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/random_value.h"
#include "support/valueless.h"

namespace cw {
namespace {

using test_support::RandomValues;
using test_support::TestSeed;

void ExpectCloseAbove(const EncodableValue& value) {
  const std::size_t size = value.Serialize().GetSize();
  EXPECT_GE(EstimateEncodedSize(value) + 16, size) << value;
  EXPECT_LE(EstimateEncodedSize(value), 2 * size + 64) << value;
}

TEST(SizeEstimate, HoldsLargeTextsAndTypedListsWhereverTheyLie) {
  for (const EncodableValue& large :
       {EncodableValue(std::string(100000, 'x')), EncodableValue(std::vector<std::uint8_t>(100000)),
        EncodableValue(std::vector<double>(100000)), EncodableValue(std::vector<float>(100000))}) {
    ExpectCloseAbove(large);
    ExpectCloseAbove(EncodableMap{{"data", large}, {"name", "n"}});
    ExpectCloseAbove(EncodableList{1, EncodableMap{{"data", large}}, large});
  }
}

TEST(SizeEstimate, IsThatOfTheItemsForALongListOfLikeItems) {
  EncodableList list;
  for (int i = 0; i < 10000; ++i) {
    list.push_back(EncodableMap{{"id", i}, {"name", "item-12345"}, {"score", i + 0.1}});
  }
  ExpectCloseAbove(EncodableValue(std::move(list)));
}

TEST(SizeEstimate, OfItemsThatMisleadStaysWithinItsBound) {
  EncodableList list(1000000);
  for (std::size_t i = 0; i < 16; ++i) {
    list[i] = std::string(100000, 'x');
  }
  EXPECT_LE(EstimateEncodedSize(EncodableValue(std::move(list))), std::size_t{9} << 20);
}

TEST(SizeEstimate, OfPlainValuesIsSmall) {
  for (const EncodableValue& value :
       {EncodableValue(), EncodableValue(true), EncodableValue(1.5),
        EncodableValue(EncodableList{}), EncodableValue(CustomEncodableValue(5)),
        test_support::MakeValueless()}) {
    EXPECT_LE(EstimateEncodedSize(value), 16U);
  }
}

// However many lists mislead, all guesses together have the one bound.
TEST(SizeEstimate, OfItemsThatMisleadOnEveryLevelStaysWithinItsBound) {
  EncodableList misleading(16384);
  misleading[0] = misleading[1] = std::string(1024, 'x');
  const EncodableList branch(8, misleading);
  const EncodableValue tree(EncodableList(16, branch));
  EXPECT_LE(EstimateEncodedSize(tree), tree.Serialize().GetSize() + (std::size_t{9} << 20));
}

TEST(SizeEstimate, OfARandomValueIsAtMostItsSizeAndTheBound) {
  const std::uint64_t seed = TestSeed(77);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomValues values(seed);
  for (int i = 0; i < 1000; ++i) {
    const EncodableValue value = values.Next();
    constexpr std::size_t kMostForAByte = 10;  // a null is judged as any plain value
    EXPECT_LE(EstimateEncodedSize(value), kMostForAByte * value.Serialize().GetSize()) << value;
  }
}

}  // namespace
}  // namespace cw
