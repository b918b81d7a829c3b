#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quarn/library.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fixtures/sample_library.h"
#include "support/capture.h"
#include "support/log_line.h"

// Builds a library that was never loaded, which no caller can. An explicit instantiation may name
// private types.
template <class Tag>
struct LibraryMaker {
  friend std::shared_ptr<quarn::Library> MakeUnloadedLibrary() {
    return std::make_shared<quarn::Library>(Tag(), "unloaded.so");
  }
};
template struct LibraryMaker<quarn::Library::PrivateTag>;
std::shared_ptr<quarn::Library> MakeUnloadedLibrary();

namespace {

namespace fs = std::filesystem;

using quarn::Library;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;

bool IsLoaded(const fs::path& path) {
  void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) {
    dlclose(handle);
  }
  return handle != nullptr;
}

// A folder that goes with its content.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (fs::temp_directory_path() / "quarn_library_test_XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("cannot make a folder below " + name);
    }
    path_ = name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const fs::path& GetPath() const { return path_; }

 private:
  fs::path path_;
};

std::string LogOfFailedLoad(const fs::path& path) {
  return StdoutOf([&path] { EXPECT_EQ(Library::Create(path), nullptr); });
}

TEST(Library, LoadsASharedObjectAndUnloadsItWithTheLastReference) {
  std::shared_ptr<Library> library;
  EXPECT_EQ(StdoutOf([&library] { library = Library::Create(QUARN_SAMPLE_LIBRARY); }), "");
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(library.use_count(), 1);
  EXPECT_EQ(library->GetPath(), QUARN_SAMPLE_LIBRARY);
  EXPECT_TRUE(IsLoaded(QUARN_SAMPLE_LIBRARY));
  auto second_reference = library;
  library.reset();
  EXPECT_TRUE(IsLoaded(QUARN_SAMPLE_LIBRARY));
  second_reference.reset();
  EXPECT_FALSE(IsLoaded(QUARN_SAMPLE_LIBRARY));
}

TEST(Library, ResolvesSymbolsToCallableFunctions) {
  const auto library = Library::Create(QUARN_SAMPLE_LIBRARY);
  ASSERT_NE(library, nullptr);
  void* address = nullptr;
  EXPECT_EQ(StdoutOf([&] { address = library->ResolveImpl("SampleTableLoad"); }), "");
  ASSERT_NE(address, nullptr);
  auto* const load = library->Resolve<SampleTableLoader>("SampleTableLoad");
  EXPECT_EQ(reinterpret_cast<void*>(load), address);
  SampleTable table{};
  EXPECT_EQ(load(&table, sizeof(table)), QUARN_RESULT_SUCCESS);
  EXPECT_EQ(table.Add(2, 3), 5);
}

TEST(Library, ResolvesANameThatIsPartOfALongerText) {
  const auto library = Library::Create(QUARN_SAMPLE_LIBRARY);
  ASSERT_NE(library, nullptr);
  const std::string_view text = "SampleTableLoadRefuses";
  EXPECT_EQ(library->ResolveImpl(text.substr(0, 15)), library->ResolveImpl("SampleTableLoad"));
}

TEST(Library, KeepsItsSymbolsToItself) {
  const auto library = Library::Create(QUARN_SAMPLE_LIBRARY);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "SampleTableLoad"), nullptr);
}

TEST(Library, ReportsASymbolThatIsNotThere) {
  const auto library = Library::Create(QUARN_SAMPLE_LIBRARY);
  ASSERT_NE(library, nullptr);
  void* address = &address;
  const std::string log = StdoutOf([&] { address = library->ResolveImpl("NoSuchSymbol"); });
  EXPECT_EQ(address, nullptr);
  EXPECT_THAT(log,
              IsLogLine("error", std::string("Could not load NoSuchSymbol symbol: ") +
                                     QUARN_SAMPLE_LIBRARY + ": undefined symbol: NoSuchSymbol"));
}

TEST(Library, ReportsASymbolOfALibraryThatIsNotLoaded) {
  const auto library = MakeUnloadedLibrary();
  void* address = &address;
  const std::string log = StdoutOf([&] { address = library->ResolveImpl("SampleTableLoad"); });
  EXPECT_EQ(address, nullptr);
  EXPECT_THAT(log,
              IsLogLine("error", "Could not load SampleTableLoad symbol: Library handle is null"));
}

TEST(Library, ReportsAFileThatDoesNotExist) {
  const std::string path = "/nonexistent/libnothing.so";
  EXPECT_THAT(
      LogOfFailedLoad(path),
      IsLogLine("error", "Couldn't load library \"\"" + path + "\"\": " + path +
                             ": cannot open shared object file: No such file or directory"));
}

TEST(Library, EscapesQuoteMarksAndBackslashesOfAPathInItsReport) {
  const std::string path = "/nonexistent/a\"b\\c.so";
  EXPECT_THAT(
      LogOfFailedLoad(path),
      IsLogLine("error", "Couldn't load library \"\"/nonexistent/a\\\"b\\\\c.so\"\": " + path +
                             ": cannot open shared object file: No such file or directory"));
}

TEST(Library, LetsNoControlCharacterOfAPathOrASymbolsNameOut) {
  EXPECT_THAT(LogOfFailedLoad("/nonexistent/a\n[error] b\x1b.so"),
              IsLogLine("error",
                        "Couldn't load library \"\"/nonexistent/a\\n[error] b\\x1b.so\"\": "
                        "/nonexistent/a\\n[error] b\\x1b.so: cannot open shared object file: "
                        "No such file or directory"));
  const auto library = Library::Create(QUARN_SAMPLE_LIBRARY);
  ASSERT_NE(library, nullptr);
  EXPECT_THAT(StdoutOf([&library] { library->ResolveImpl("a\nb"); }),
              IsLogLine("error", "Could not load a\\nb symbol: " QUARN_SAMPLE_LIBRARY
                                 ": undefined symbol: a\\nb"));
}

TEST(Library, TakesNoTextForTheShorterOneBeforeANulInside) {
  using std::string_literals::operator""s;
  EXPECT_THAT(LogOfFailedLoad(QUARN_SAMPLE_LIBRARY "\0.so"s),
              IsLogLine("error", "Couldn't load library \"\"" QUARN_SAMPLE_LIBRARY
                                 "\\x00.so\"\": the path holds a NUL"));
  const auto library = Library::Create(QUARN_SAMPLE_LIBRARY);
  ASSERT_NE(library, nullptr);
  EXPECT_NE(library->ResolveImpl("SampleTableLoad"), nullptr);
  void* found = nullptr;
  EXPECT_THAT(
      StdoutOf([&] { found = library->ResolveImpl("SampleTableLoad\0x"s); }),
      IsLogLine("error", "Could not load SampleTableLoad\\x00x symbol: the name holds a NUL"));
  EXPECT_EQ(found, nullptr);
}

TEST(Library, LoadsFromAPathWithAQuoteMarkAndABackslash) {
  const TemporaryFolder folder;
  const fs::path path = folder.GetPath() / "a\"b\\c.so";
  fs::copy_file(QUARN_SAMPLE_LIBRARY, path);
  auto library = Library::Create(path);
  ASSERT_NE(library, nullptr);
  EXPECT_TRUE(IsLoaded(path));
  library.reset();
  EXPECT_FALSE(IsLoaded(path));
}

TEST(Library, ReportsAFileThatIsNoSharedObject) {
  const TemporaryFolder folder;
  const fs::path path = folder.GetPath() / "text.so";
  std::ofstream(path) << "this is text, and long enough to be read as a header of some kind: "
                      << path;
  const std::string begin = "Couldn't load library \"\"" + path.string() + "\"\": ";
  const std::string log = LogOfFailedLoad(path);
  EXPECT_THAT(log, testing::HasSubstr(begin + path.string() + ": "));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

TEST(Library, RefusesALibraryWithASymbolThatNobodyDefines) {
  const std::string log = LogOfFailedLoad(QUARN_UNRESOLVED_LIBRARY);
  EXPECT_THAT(log, testing::StartsWith("[error] quarn/src/library.cpp:"));
  EXPECT_THAT(log, testing::HasSubstr("FunctionThatNobodyDefines"));
}

TEST(Library, CountsTwoLoadsOfOneFile) {
  auto first = Library::Create(QUARN_SAMPLE_LIBRARY);
  auto second = Library::Create(QUARN_SAMPLE_LIBRARY);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  first.reset();
  EXPECT_TRUE(IsLoaded(QUARN_SAMPLE_LIBRARY));
  EXPECT_NE(second->ResolveImpl("SampleTableLoad"), nullptr);
  second.reset();
  EXPECT_FALSE(IsLoaded(QUARN_SAMPLE_LIBRARY));
}

}  // namespace
