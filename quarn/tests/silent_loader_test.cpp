// A program of its own: here the dynamic loader fails without saying why.
#include <gtest/gtest.h>
#include <quarn/library.h>

#include <stdexcept>
#include <string>

#include "support/capture.h"

// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker wants this name
extern "C" char* __wrap_dlerror() { return nullptr; }

namespace {

using quarn::Library;
using tarv::test::StdoutOf;

template <class Action>
std::string LogicErrorOf(Action&& action) {
  try {
    action();
  } catch (const std::logic_error& error) {
    return error.what();
  }
  return "no error";
}

constexpr char kNullText[] = "basic_string: construction from null is not valid";

TEST(SilentLoader, RaisesALogicErrorWhenALibraryDoesNotLoad) {
  std::string error;
  const std::string log = StdoutOf(
      [&error] { error = LogicErrorOf([] { Library::Create("/nonexistent/libnothing.so"); }); });
  EXPECT_EQ(error, kNullText);
  EXPECT_EQ(log, "");
}

TEST(SilentLoader, RaisesALogicErrorWhenASymbolIsNotThere) {
  const auto library = Library::Create(QUARN_SAMPLE_LIBRARY);
  ASSERT_NE(library, nullptr);
  std::string error;
  const std::string log =
      StdoutOf([&] { error = LogicErrorOf([&library] { library->ResolveImpl("NoSuchSymbol"); }); });
  EXPECT_EQ(error, kNullText);
  EXPECT_EQ(log, "");
}

}  // namespace
