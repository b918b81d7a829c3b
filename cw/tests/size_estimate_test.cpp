#include <cw/internal/size_estimate.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
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

// The number of items decides, not what the first ones look like.
TEST(SizeEstimate, OfALongListIsWhatItsItemsTakeInMemory) {
  EncodableList list(1000);
  list[0] = std::string(100000, 'x');
  EXPECT_LE(EstimateEncodedSize(EncodableValue(list)), 1001 * sizeof(EncodableValue));
  EXPECT_LE(EstimateEncodedSize(EncodableList{list, list}), 2002 * sizeof(EncodableValue));
}

// Where more is asked for, the C library takes it anew from the kernel each time: a list of a million
// numbers would take three times as long.
TEST(SizeEstimate, OfAMillionItemsIsNoMoreThanTheCLibraryKeeps) {
  constexpr std::size_t kKept = std::size_t{32} << 20;
  EXPECT_LT(EstimateEncodedSize(EncodableValue(EncodableList(1000000))), kKept);
}

TEST(SizeEstimate, OfPlainValuesIsSmall) {
  for (const EncodableValue& value :
       {EncodableValue(), EncodableValue(true), EncodableValue(1.5),
        EncodableValue(EncodableList{}), EncodableValue(CustomEncodableValue(5)),
        test_support::MakeValueless()}) {
    EXPECT_LE(EstimateEncodedSize(value), 16U);
  }
}

// What lies deep is not walked, or a tree of many branches would be walked as a whole.
TEST(SizeEstimate, LooksAtNothingThatLiesDeep) {
  EncodableValue value(std::string(100000, 'x'));
  for (int i = 0; i < 4; ++i) {
    value = EncodableList{std::move(value)};
  }
  EXPECT_LE(EstimateEncodedSize(value), 200U);
}

TEST(SizeEstimate, OfARandomValueIsAtMostAFewTimesItsSize) {
  const std::uint64_t seed = TestSeed(77);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomValues values(seed);
  for (int i = 0; i < 1000; ++i) {
    const EncodableValue value = values.Next();
    constexpr std::size_t kMostForAByte = sizeof(EncodableValue);  // a null of a long list
    EXPECT_LE(EstimateEncodedSize(value), kMostForAByte * value.Serialize().GetSize()) << value;
  }
}

}  // namespace
}  // namespace cw
