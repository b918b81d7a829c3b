#include <gtest/gtest.h>
#include <quarn/internal/known_length.h>

#include <stdexcept>
#include <string_view>
#include <thread>

namespace {

using quarn::FindView;
using quarn::KnownLength;
using quarn::TextWay;

// A length that no search would give shows where it comes from.
constexpr char kText[] = "text";
constexpr std::string_view kPart{kText, 2};

TEST(KnownLength, SparesTheSearchForTheTextsEnd) {
  const KnownLength known(TextWay::kOut, kPart);
  EXPECT_EQ(FindView(TextWay::kOut, kText), "te");
}

TEST(KnownLength, IsOfOneTextAndOneWay) {
  const KnownLength known(TextWay::kOut, kPart);
  EXPECT_EQ(FindView(TextWay::kOut, kText + 1), "ext");
  EXPECT_EQ(FindView(TextWay::kIn, kText), "text");
}

TEST(KnownLength, EndsWithItsScopeAndGivesWayToAnInnerOne) {
  {
    const KnownLength outer(TextWay::kIn, kPart);
    {
      const KnownLength inner(TextWay::kIn, {kText + 1, 1});
      EXPECT_EQ(FindView(TextWay::kIn, kText), "text");
      EXPECT_EQ(FindView(TextWay::kIn, kText + 1), "e");
    }
    EXPECT_EQ(FindView(TextWay::kIn, kText), "te");
  }
  EXPECT_EQ(FindView(TextWay::kIn, kText), "text");
}

TEST(KnownLength, IsNotKnownToOtherThreads) {
  const KnownLength known(TextWay::kOut, kPart);
  std::string_view seen;
  std::thread([&seen] { seen = FindView(TextWay::kOut, kText); }).join();
  EXPECT_EQ(seen, "text");
}

TEST(KnownLength, MakesNoTextOfNull) {
  EXPECT_THROW(FindView(TextWay::kIn, nullptr), std::logic_error);
}

}  // namespace
