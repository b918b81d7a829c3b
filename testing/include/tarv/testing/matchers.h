// Matchers of GoogleTest for how calls end. They take an ObservedCall or a tarv::Outcome, and tell what
// there was instead, with the transcript of an ObservedCall:
//
//   EXPECT_THAT(call, Answers(Totals{2, {2}}));
//   EXPECT_THAT(call, Answers(Field(&Totals::total, Gt(1))));
//   EXPECT_THAT(call, IsError(-32602, HasSubstr("params.texts")));
//   EXPECT_THAT(call, TimedOut());
//   EXPECT_THAT(call, TaskKilled(HasSubstr("SIGSEGV")));
//
// This header needs GoogleMock; the rest of the kit needs no test framework. Whoever includes it has
// ReportFailure fail the running test.
#ifndef TARV_TESTING_MATCHERS_H
#define TARV_TESTING_MATCHERS_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/call_error.h>
#include <tarv/calls/value.h>
#include <tarv/testing/failure.h>
#include <tarv/testing/observed_call.h>

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>

namespace tarv {

namespace testing::details {

inline const FailureHandler kHandlerBeforeGoogleTest =
    SetFailureHandler([](const std::string& text) { ADD_FAILURE() << text; });

template <class Result>
void PrintOutcome(const Outcome<Result>& outcome, std::ostream& stream) {
  if (!outcome) {
    const CallError& error = outcome.GetError();
    stream << NameOf(error.GetReason());
    if (error.GetCode() != 0) {
      stream << ' ' << error.GetCode();
    }
    stream << ": " << error.what();
  } else if constexpr (std::is_void_v<Result>) {
    stream << "no value, and no error";
  } else {
    stream << ToEncodable<Result>(*outcome);
  }
}

template <class Result>
const Outcome<Result>* FindOutcome(const Outcome<Result>& outcome) {
  return &outcome;
}
template <class Result, class Step>
const Outcome<Result>* FindOutcome(const ObservedCall<Result, Step>& call) {
  return call.HasEnded() ? &call.GetOutcome() : nullptr;
}

template <class Result>
bool TellTranscript(const Outcome<Result>& /*outcome*/, bool matches,
                    ::testing::MatchResultListener* /*listener*/) {
  return matches;
}
// Of a call that does not match.
template <class Result, class Step>
bool TellTranscript(const ObservedCall<Result, Step>& call, bool matches,
                    ::testing::MatchResultListener* listener) {
  if (!matches) {
    *listener << "in this conversation:\n" << call.GetTranscript();
  }
  return matches;
}

// Looks at the error that a call ended with.
class ErrorMatcher {
 public:
  ErrorMatcher(CallReason reason, std::optional<std::int32_t> code,
               ::testing::Matcher<std::string> text)
      : reason_(reason), code_(code), text_(std::move(text)) {}

  template <class Subject>
  bool MatchAndExplain(const Subject& subject, ::testing::MatchResultListener* listener) const {
    const auto* const outcome = FindOutcome(subject);
    return TellTranscript(subject, outcome != nullptr && !*outcome && Fits(outcome->GetError()),
                          listener);
  }
  void DescribeTo(std::ostream* stream) const { Describe("ends with ", stream); }
  void DescribeNegationTo(std::ostream* stream) const { Describe("does not end with ", stream); }

 private:
  bool Fits(const CallError& error) const {
    return error.GetReason() == reason_ && (!code_ || error.GetCode() == *code_) &&
           text_.Matches(error.what());
  }
  void Describe(const char* verb, std::ostream* stream) const {
    *stream << verb << NameOf(reason_);
    if (code_) {
      *stream << ' ' << *code_;
    }
    *stream << " and a text that ";
    text_.DescribeTo(stream);
  }

  CallReason reason_;
  std::optional<std::int32_t> code_;
  ::testing::Matcher<std::string> text_;
};

template <class Subject>
struct ResultIn;
template <class Result>
struct ResultIn<Outcome<Result>> {
  using Type = Result;
};
template <class Result, class Step>
struct ResultIn<ObservedCall<Result, Step>> {
  using Type = Result;
};

// Looks at the value that a call ended with. Values are compared as they travel, so that structures
// need no operator.
template <class Subject, class Expected>
class AnswerMatcher final : public ::testing::MatcherInterface<const Subject&> {
  using Result = typename ResultIn<Subject>::Type;
  static constexpr bool kIsValue = std::is_convertible_v<const Expected&, Result>;
  // What is compared: a value as it travels, or what fits it.
  using Comparison = std::conditional_t<kIsValue, cw::EncodableValue, ::testing::Matcher<Result>>;

 public:
  explicit AnswerMatcher(const Expected& expected) : comparison_(Prepare(expected)) {}

  bool MatchAndExplain(const Subject& subject,
                       ::testing::MatchResultListener* listener) const override {
    const auto* const outcome = FindOutcome(subject);
    return TellTranscript(
        subject, outcome != nullptr && outcome->HasValue() && Fits(**outcome, listener), listener);
  }
  void DescribeTo(std::ostream* stream) const override { Describe("answers ", stream); }
  void DescribeNegationTo(std::ostream* stream) const override {
    Describe("does not answer ", stream);
  }

 private:
  static Comparison Prepare(const Expected& expected) {
    if constexpr (kIsValue) {
      return ToEncodable<Result>(Result(expected));
    } else {
      return ::testing::SafeMatcherCast<Result>(expected);
    }
  }
  bool Fits(const Result& value, ::testing::MatchResultListener* listener) const {
    if constexpr (kIsValue) {
      return ToEncodable<Result>(value) == comparison_;
    } else {
      ::testing::StringMatchResultListener why;
      const bool fits = comparison_.MatchAndExplain(value, &why);
      *listener << why.str() << (why.str().empty() || fits ? "" : ", ");
      return fits;
    }
  }
  void Describe(const char* verb, std::ostream* stream) const {
    *stream << verb;
    if constexpr (kIsValue) {
      *stream << comparison_;
    } else {
      *stream << "with a value that ";
      comparison_.DescribeTo(stream);
    }
  }

  Comparison comparison_;
};

// Becomes a matcher of the kind of call that it is used for.
template <class Expected>
class Answer {
 public:
  explicit Answer(Expected expected) : expected_(std::move(expected)) {}

  template <class Subject>
  operator ::testing::Matcher<Subject>() const {
    using Plain = std::remove_cv_t<std::remove_reference_t<Subject>>;
    return ::testing::SafeMatcherCast<Subject>(
        ::testing::MakeMatcher(new AnswerMatcher<Plain, Expected>(expected_)));
  }

 private:
  Expected expected_;
};

class AnyAnswerMatcher {
 public:
  template <class Subject>
  bool MatchAndExplain(const Subject& subject, ::testing::MatchResultListener* listener) const {
    const auto* const outcome = FindOutcome(subject);
    return TellTranscript(subject, outcome != nullptr && outcome->HasValue(), listener);
  }
  static void DescribeTo(std::ostream* stream) { *stream << "answers"; }
  static void DescribeNegationTo(std::ostream* stream) { *stream << "does not answer"; }
};

class OpenMatcher {
 public:
  template <class Result, class Step>
  bool MatchAndExplain(const ObservedCall<Result, Step>& call,
                       ::testing::MatchResultListener* listener) const {
    return TellTranscript(call, !call.HasEnded(), listener);
  }
  static void DescribeTo(std::ostream* stream) { *stream << "has not ended"; }
  static void DescribeNegationTo(std::ostream* stream) { *stream << "has ended"; }
};

using TextMatcher = ::testing::Matcher<std::string>;

}  // namespace testing::details

// How GoogleTest prints what was matched.
template <class Result>
void PrintTo(const Outcome<Result>& outcome, std::ostream* stream) {
  testing::details::PrintOutcome(outcome, *stream);
}

namespace testing {

template <class Result, class Step>
void PrintTo(const ObservedCall<Result, Step>& call, std::ostream* stream) {
  *stream << "the call of '" << call.GetMethod() << "', which ";
  if (!call.HasEnded()) {
    *stream << "has not ended";
    return;
  }
  *stream << "ended with ";
  details::PrintOutcome(call.GetOutcome(), *stream);
}

// Ended with this value, or with one that the matcher fits.
template <class Expected>
details::Answer<Expected> Answers(Expected expected) {
  return details::Answer<Expected>(std::move(expected));
}
// Ended with a value, whichever.
inline auto Answers() { return ::testing::MakePolymorphicMatcher(details::AnyAnswerMatcher()); }

// Has not ended. For an ObservedCall.
inline auto IsOpen() { return ::testing::MakePolymorphicMatcher(details::OpenMatcher()); }

// Ended without a value, for this reason. `text` is what CallError::what() says, here and below.
inline auto EndsFor(CallReason reason, const details::TextMatcher& text = ::testing::_) {
  return ::testing::MakePolymorphicMatcher(details::ErrorMatcher(reason, std::nullopt, text));
}

// The task answered with an error of this code.
inline auto IsError(std::int32_t code, const details::TextMatcher& text = ::testing::_) {
  return ::testing::MakePolymorphicMatcher(
      details::ErrorMatcher(CallReason::kAnswered, code, text));
}
inline auto TimedOut(const details::TextMatcher& text = ::testing::_) {
  return EndsFor(CallReason::kTimedOut, text);
}
inline auto Cancelled(const details::TextMatcher& text = ::testing::_) {
  return EndsFor(CallReason::kCancelled, text);
}
inline auto TaskExited(const details::TextMatcher& text = ::testing::_) {
  return EndsFor(CallReason::kTaskExited, text);
}
inline auto TaskKilled(const details::TextMatcher& text = ::testing::_) {
  return EndsFor(CallReason::kTaskKilled, text);
}
inline auto ConnectionLost(const details::TextMatcher& text = ::testing::_) {
  return EndsFor(CallReason::kConnectionLost, text);
}

}  // namespace testing
}  // namespace tarv

#endif  // TARV_TESTING_MATCHERS_H
