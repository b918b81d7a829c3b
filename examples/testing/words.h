// What the plug-in and its task call each other by.
#ifndef EXAMPLE_TESTING_WORDS_H
#define EXAMPLE_TESTING_WORDS_H

#include <tarv/calls/method.h>
#include <tarv/calls/value.h>

#include <cstdint>
#include <string>

namespace words {

inline constexpr char kTask[] = "words";
inline constexpr char kChannel[] = "example/words";

struct Piece {
  std::int64_t number;  // each piece has its own, so that one which comes twice is known
  std::string text;
};
TARV_VALUE(Piece, number, text)

inline constexpr tarv::Method<std::int64_t(Piece)> kAdd{"add", "gives the words of all pieces"};

}  // namespace words

#endif  // EXAMPLE_TESTING_WORDS_H
