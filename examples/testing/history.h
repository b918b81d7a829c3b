// The bugs that this plug-in has had. The build makes it once more with each of them, and expects the
// test that caught it to fail.
#ifndef EXAMPLE_TESTING_HISTORY_H
#define EXAMPLE_TESTING_HISTORY_H

#ifndef WORDS_BUG
#define WORDS_BUG 0
#endif

namespace words {

enum class Bug {
  kNone,
  kForgetsErrors,   // 1: Dart waited for ever when the task had died
  kCountsTwice,     // 2: a message that came twice was counted twice
  kWaitsTooLong,    // 3: a lost message showed after half a minute
  kMixesUpAnswers,  // 4: of two calls at a time only the second was answered
  kStaysDead,       // 5: after its first death the task was not started again
};

constexpr bool Has(Bug bug) { return static_cast<int>(bug) == WORDS_BUG; }

}  // namespace words

#endif  // EXAMPLE_TESTING_HISTORY_H
