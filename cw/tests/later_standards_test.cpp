// What a plug-in of a later C++ standard does with values: this file is compiled as each of them.
#include <cw/encodable_value.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <concepts>
#include <functional>
#include <vector>

namespace cw {
namespace {

static_assert(__cplusplus > 201703L);
static_assert(std::totally_ordered<EncodableValue>);

TEST(SUITE, ComparesValues) {
  const EncodableValue one(1);
  const EncodableValue wide_one(std::int64_t{1});
  EXPECT_TRUE(one < wide_one && one <= wide_one && wide_one > one && wide_one >= one);
  EXPECT_TRUE(one != wide_one && one == EncodableValue(1));
  EXPECT_FALSE(one < one || one > one || one != one);
}

TEST(SUITE, ComparesLists) {
  const EncodableList list{1, EncodableValue(EncodableList{"a"})};
  const EncodableList longer{1, EncodableValue(EncodableList{"a", "b"})};
  EXPECT_TRUE(list < longer && list <= longer && longer > list && longer >= list);
  const bool differs = list != longer;
  EXPECT_TRUE(differs);
  EXPECT_NE(list, longer);
  EXPECT_EQ(list, EncodableList(list));
  EXPECT_TRUE(!(list != EncodableList(list)));
  EXPECT_TRUE(EncodableValue(list) != EncodableValue(longer));
}

TEST(SUITE, ComparesMaps) {
  const EncodableMap map{{"a", EncodableList{1}}};
  const EncodableMap later{{"a", EncodableList{2}}};
  EXPECT_TRUE(map < later && map != later && map == EncodableMap(map));
}

TEST(SUITE, SortsValues) {
  std::vector<EncodableValue> values{"b", 2, "a", EncodableList{}, 1, nullptr};
  std::sort(values.begin(), values.end(), std::less<>());
  EXPECT_EQ(values, (std::vector<EncodableValue>{nullptr, 1, 2, "a", "b", EncodableList{}}));
}

TEST(SUITE, SendsValuesThereAndBack) {
  const EncodableValue value(EncodableMap{{"id", 7}, {"tags", EncodableList{"a", true}}});
  EXPECT_EQ(EncodableValue::Deserialize(value.Serialize()), value);
}

}  // namespace
}  // namespace cw
