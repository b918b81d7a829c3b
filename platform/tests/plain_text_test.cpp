// The search for characters that are not plain: each way of it that this CPU can go.
#include "../host/plain_text.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using RuntimeManager::host::GetPlainSearches;
using RuntimeManager::host::PlainPrefix;
using RuntimeManager::host::PlainPrefixBy;
using RuntimeManager::host::PlainSearch;

// More than the longest block of any search, and as long again.
constexpr std::size_t kLength = 300;

template <class Check>
void WithEachSearch(const Check& check) {
  std::size_t checked = 0;
  for (const PlainSearch& search : GetPlainSearches()) {
    if (search.is_supported()) {
      SCOPED_TRACE(search.name);
      check(search);
      ++checked;
    }
  }
  EXPECT_GE(checked, 1U);
}

bool IsPlainByDefinition(int code) {
  return code >= 0x20 && code < 0x7f && code != '"' && code != '\\';
}

TEST(PlainText, IsToldFromEveryOtherCharacterAtEveryPlace) {
  WithEachSearch([](const PlainSearch& search) {
    for (int code = 0; code < 256; ++code) {
      const std::size_t expected = IsPlainByDefinition(code) ? kLength : 0;
      std::string text(kLength, 'x');
      for (std::size_t at = 0; at < kLength; ++at) {
        text[at] = static_cast<char>(code);
        ASSERT_EQ(PlainPrefixBy(search, text), expected == 0 ? at : kLength)
            << code << " at " << at;
        text[at] = 'x';
      }
    }
  });
}

TEST(PlainText, OfEveryLengthIsSearchedToItsEndAndNoFurther) {
  WithEachSearch([](const PlainSearch& search) {
    const std::string text = std::string(kLength, 'x') + "\"";
    for (std::size_t begin = 0; begin < 64; ++begin) {
      for (std::size_t size = 0; begin + size <= kLength; ++size) {
        ASSERT_EQ(PlainPrefixBy(search, std::string_view(text).substr(begin, size)), size);
      }
    }
  });
}

TEST(PlainText, EndsBeforeTheFirstOfSeveralStrangeCharacters) {
  WithEachSearch([](const PlainSearch& search) {
    std::string text(kLength, 'x');
    text[70] = '\\';
    text[75] = '"';
    text[200] = '\n';
    EXPECT_EQ(PlainPrefixBy(search, text), 70U);
  });
}

TEST(PlainText, IsSearchedByTheFastestWay) {
  EXPECT_EQ(PlainPrefix(std::string(kLength, ' ') + "\x1f"), kLength);
  EXPECT_EQ(PlainPrefix({}), 0U);
}

}  // namespace
