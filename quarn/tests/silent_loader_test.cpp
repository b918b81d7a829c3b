// A program of its own: here the dynamic loader fails without saying why, and writes down how it is
// asked.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <quarn/library.h>

#include <stdexcept>
#include <string>

#include "support/capture.h"

namespace {

std::string opened_path;
int opened_flags = 0;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker wants these names
extern "C" {

char* __wrap_dlerror() { return nullptr; }

void* __real_dlopen(const char* path, int flags);

void* __wrap_dlopen(const char* path, int flags) {
  opened_path = path;
  opened_flags = flags;
  return __real_dlopen(path, flags);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

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

TEST(SilentLoader, IsAskedForThePathWithNoFlagButToResolveAllNow) {
  ASSERT_NE(Library::Create(QUARN_SAMPLE_LIBRARY), nullptr);
  EXPECT_EQ(opened_path, QUARN_SAMPLE_LIBRARY);
  EXPECT_EQ(opened_flags, RTLD_NOW);
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
