// The structures that the tests of this folder send.
#ifndef CALLS_TESTS_VALUES_H
#define CALLS_TESTS_VALUES_H

#include <tarv/calls/method.h>
#include <tarv/calls/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace counting {

struct Texts {
  std::vector<std::string> texts;
};
struct Totals {
  std::int64_t total = 0;
  std::vector<std::int32_t> each;
};
struct Step {
  std::int32_t done = 0, of = 0;
};
TARV_VALUE(Texts, texts)
TARV_VALUE(Totals, total, each)
TARV_VALUE(Step, done, of)

inline constexpr tarv::Method<Totals(Texts), Step> kCount{"count", "counts the words of each text"};
inline constexpr tarv::Method<std::int32_t()> kNext{"next"};
inline constexpr tarv::Method<void(std::string)> kSay{"say"};
inline constexpr tarv::Method<void()> kPing{"ping"};

}  // namespace counting

namespace zoo {

enum class Color { kRed, kGreen, kUnnamed };
TARV_ENUM(Color, kRed, kGreen)

struct Nothing {};
TARV_EMPTY_VALUE(Nothing)

struct Node {
  std::string name;
  std::vector<Node> children;
};
TARV_VALUE(Node, name, children)

struct Everything {
  bool flag = false;
  std::int8_t tiny = 0;
  std::uint16_t small = 0;
  std::uint32_t medium = 0;
  std::uint64_t large = 0;
  float single = 0;
  double precise = 0;
  std::string text;
  std::vector<std::uint8_t> bytes;
  std::vector<std::int16_t> shorts;
  std::vector<std::uint32_t> words;
  std::vector<std::int64_t> longs;
  std::vector<float> floats;
  std::vector<double> doubles;
  std::vector<bool> flags;
  std::map<std::string, std::int32_t> counts;
  std::unordered_map<std::string, Color> colors;
  std::optional<std::string> note;
  std::vector<std::optional<std::int32_t>> holes;
  Color color = Color::kRed;
  Nothing nothing;
  Node node;
  cw::EncodableValue any;
};
TARV_VALUE(Everything, flag, tiny, small, medium, large, single, precise, text, bytes, shorts,
           words, longs, floats, doubles, flags, counts, colors, note, holes, color, nothing, node,
           any)

struct Furnished {
  std::map<std::string, std::int32_t> counts{{"a", 1}};
  std::vector<std::string> texts{"a"};
};
TARV_VALUE(Furnished, counts, texts)

struct Wide {
  int a1 = 0, a2 = 0, a3 = 0, a4 = 0, a5 = 0, a6 = 0, a7 = 0, a8 = 0, a9 = 0, a10 = 0, a11 = 0,
      a12 = 0, a13 = 0, a14 = 0, a15 = 0, a16 = 0, a17 = 0, a18 = 0, a19 = 0, a20 = 0, a21 = 0,
      a22 = 0, a23 = 0, a24 = 0, a25 = 0, a26 = 0, a27 = 0, a28 = 0, a29 = 0, a30 = 0, a31 = 0,
      a32 = 0;
};
TARV_VALUE(Wide, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15, a16, a17, a18,
           a19, a20, a21, a22, a23, a24, a25, a26, a27, a28, a29, a30, a31, a32)

}  // namespace zoo

#endif  // CALLS_TESTS_VALUES_H
