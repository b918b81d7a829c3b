#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quarn/library_api.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "fixtures/sample_library.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace {

using quarn::Library;
using quarn::LibraryApi;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;

using SampleApi = LibraryApi<SampleTable>;

bool IsSampleLoaded() {
  void* const handle = dlopen(QUARN_SAMPLE_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) {
    dlclose(handle);
  }
  return handle != nullptr;
}

class LibraryApiTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(library_, nullptr); }

  SampleTableLoader* SampleLoader(const char* name = "SampleTableLoad") const {
    return library_->Resolve<SampleTableLoader>(name);
  }

  // The log of a Create that must fail.
  static std::string LogOfFailure(const std::shared_ptr<Library>& library,
                                  SampleApi::Loader loader) {
    return StdoutOf([&] { EXPECT_EQ(SampleApi::Create(library, loader), nullptr); });
  }

  std::shared_ptr<Library> library_ = Library::Create(QUARN_SAMPLE_LIBRARY);
};

TEST_F(LibraryApiTest, IsFilledByTheLibrarysLoader) {
  std::unique_ptr<SampleApi> api;
  EXPECT_EQ(StdoutOf([&] { api = SampleApi::Create(library_, SampleLoader()); }), "");
  ASSERT_NE(api, nullptr);
  EXPECT_EQ(api->GetTable().size, sizeof(SampleTable));
  EXPECT_EQ(api->GetTable().Add(2, 3), 5);
  EXPECT_EQ(api->GetTable().Answer(), 42U);
  EXPECT_EQ(api->GetLibrary(), library_);
}

TEST_F(LibraryApiTest, GivesTheLoaderAZeroedTableWithItsSize) {
  const auto loader = [](SampleTable* table, std::uint64_t size) {
    EXPECT_EQ(size, sizeof(SampleTable));
    EXPECT_EQ(table->size, sizeof(SampleTable));
    const SampleTable zeroed{sizeof(SampleTable), nullptr, nullptr, nullptr};
    EXPECT_EQ(std::memcmp(table, &zeroed, sizeof(zeroed)), 0);
    return QUARN_RESULT_SUCCESS;
  };
  EXPECT_NE(SampleApi::Create(library_, loader), nullptr);
}

TEST_F(LibraryApiTest, ReportsOnlyTheMissingLibraryWhenTheLoaderIsMissingToo) {
  EXPECT_THAT(LogOfFailure(nullptr, nullptr), IsLogLine("error", "No library provided."));
}

TEST_F(LibraryApiTest, ReportsAMissingLibrary) {
  EXPECT_THAT(LogOfFailure(nullptr, SampleLoader()), IsLogLine("error", "No library provided."));
}

TEST_F(LibraryApiTest, ReportsAMissingLoader) {
  EXPECT_THAT(LogOfFailure(library_, nullptr),
              IsLogLine("error", "No proc table loader function provided."));
  EXPECT_EQ(library_.use_count(), 1);
}

TEST_F(LibraryApiTest, ReportsALoaderThatFailsAndLetsTheLibraryGo) {
  EXPECT_THAT(LogOfFailure(library_, SampleLoader("SampleTableLoadRefuses")),
              IsLogLine("error", "Failed to load proc table."));
  EXPECT_EQ(library_.use_count(), 1);
}

TEST_F(LibraryApiTest, TakesEveryResultButZeroForAFailure) {
  EXPECT_THAT(
      LogOfFailure(library_, [](SampleTable*, std::uint64_t) { return QUARN_RESULT_FAILURE; }),
      IsLogLine("error", "Failed to load proc table."));
  EXPECT_THAT(LogOfFailure(library_, [](SampleTable*,
                                        std::uint64_t) { return QUARN_RESULT_INVALID_ARGUMENT; }),
              IsLogLine("error", "Failed to load proc table."));
}

TEST_F(LibraryApiTest, KeepsTheLibraryLoadedUntilTheLastTableIsGone) {
  auto first = SampleApi::Create(library_, SampleLoader());
  std::shared_ptr<SampleApi> second = SampleApi::Create(first->GetLibrary(), SampleLoader());
  EXPECT_EQ(library_.use_count(), 3);
  library_.reset();
  EXPECT_EQ(first->GetTable().Answer(), 42U);
  first.reset();
  EXPECT_TRUE(IsSampleLoaded());
  EXPECT_EQ(second->GetTable().Answer(), 42U);
  second.reset();
  EXPECT_FALSE(IsSampleLoaded());
}

// --- Which entries are provided ---

using Entry = int (*)();

// One entry of each name that a caller may miss.
struct EveryTable {
  std::uint64_t size;
  Entry Initialize;
  Entry GetIntentManager;
  Entry IntentManagerProcTableLoad;
  Entry CreateRpcClient;
  Entry RpcClientProcTableLoad;
  Entry GetRpcServer;
  Entry RpcServerProcTableLoad;
  Entry StartTask;
  Entry SendMessage;
  Entry UnlockResources;
  Entry Release;
  Entry Run;
  Entry OpenUri;
};

struct EntryCase {
  const char* name;
  std::string message;
  std::size_t offset;
  Entry (*find)(const EveryTable& api_table);
};

// How a test of one entry is named.
void PrintTo(const EntryCase& entry, std::ostream* stream) { *stream << entry.name; }

#define ENTRY_CASE(name)                                                                        \
  EntryCase {                                                                                   \
    #name, "Method '" #name "' is not provided by the loaded API.", offsetof(EveryTable, name), \
        [](const EveryTable& api_table) { return QUARN_FIND_ENTRY(api_table, name); }           \
  }

int SomeEntry() { return 9; }

// A table that states `size` and holds every entry, whether the size covers it or not.
EveryTable TableOfSize(std::uint64_t size) {
  EveryTable table{};
  constexpr std::size_t kEntries = sizeof(EveryTable) / 8;
  std::array<Entry, kEntries> entries{};
  entries.fill(&SomeEntry);
  std::memcpy(static_cast<void*>(&table), entries.data(), sizeof(table));
  table.size = size;
  return table;
}

class ProvidedEntry : public testing::TestWithParam<EntryCase> {
 protected:
  // What the lookup finds; what it logs is in `log_`.
  Entry Find(const EveryTable& table) {
    Entry found = nullptr;
    log_ = StdoutOf([&] { found = GetParam().find(table); });
    return found;
  }

  std::string log_;
};

TEST_P(ProvidedEntry, IsFoundWhenTheStatedSizeJustCoversIt) {
  EXPECT_EQ(Find(TableOfSize(GetParam().offset + 8)), &SomeEntry);
  EXPECT_EQ(log_, "");
  EXPECT_EQ(Find(TableOfSize(sizeof(EveryTable))), &SomeEntry);
}

TEST_P(ProvidedEntry, IsMissingBeyondTheStatedSizeThoughItsPointerIsNotNull) {
  for (std::uint64_t size = 0; size < GetParam().offset + 8; ++size) {
    ASSERT_EQ(Find(TableOfSize(size)), nullptr) << "size " << size;
    ASSERT_THAT(log_, IsLogLine("error", GetParam().message));
  }
}

TEST_P(ProvidedEntry, IsMissingWhenItIsNull) {
  EveryTable table{};
  table.size = sizeof(table);
  EXPECT_EQ(Find(table), nullptr);
  EXPECT_THAT(log_, IsLogLine("error", GetParam().message));
  EXPECT_THAT(log_, testing::HasSubstr(" quarn/tests/library_api_test.cpp:"));
}

INSTANTIATE_TEST_SUITE_P(
    Every, ProvidedEntry,
    testing::Values(ENTRY_CASE(Initialize), ENTRY_CASE(GetIntentManager),
                    ENTRY_CASE(IntentManagerProcTableLoad), ENTRY_CASE(CreateRpcClient),
                    ENTRY_CASE(RpcClientProcTableLoad), ENTRY_CASE(GetRpcServer),
                    ENTRY_CASE(RpcServerProcTableLoad), ENTRY_CASE(StartTask),
                    ENTRY_CASE(SendMessage), ENTRY_CASE(UnlockResources), ENTRY_CASE(Release),
                    ENTRY_CASE(Run), ENTRY_CASE(OpenUri)));

TEST_F(LibraryApiTest, CountsAnEntryBeyondASmallerReportedSizeAsNotProvided) {
  const auto loader = [](SampleTable* table, std::uint64_t) {
    table->size = 16;
    table->Add = [](int, int) { return 1; };
    table->Answer = [] { return std::uint64_t{7}; };
    return QUARN_RESULT_SUCCESS;
  };
  const auto api = SampleApi::Create(library_, loader);
  ASSERT_NE(api, nullptr);
  EXPECT_NE(QUARN_FIND_ENTRY(api->GetTable(), Add), nullptr);
  EXPECT_THAT(StdoutOf([&api] { EXPECT_EQ(QUARN_FIND_ENTRY(api->GetTable(), Answer), nullptr); }),
              IsLogLine("error", "Method 'Answer' is not provided by the loaded API."));
}

TEST_F(LibraryApiTest, CountsAnEntryThatTheLibraryLeftNullAsNotProvided) {
  const auto api = SampleApi::Create(library_, SampleLoader());
  ASSERT_NE(api, nullptr);
  EXPECT_THAT(StdoutOf([&api] { EXPECT_EQ(QUARN_FIND_ENTRY(api->GetTable(), Missing), nullptr); }),
              IsLogLine("error", "Method 'Missing' is not provided by the loaded API."));
}

TEST(CallEntry, CallsTheEntryWithTheArguments) {
  int (*add)(int, int) = [](int a, int b) { return a + b; };
  EXPECT_EQ(quarn::CallEntry(add, -1, 2, 3), 5);
  void (*set)(int*) = [](int* value) { *value = 7; };
  int value = 0;
  quarn::CallEntry(set, &value);
  EXPECT_EQ(value, 7);
}

TEST(CallEntry, ReturnsTheFailureValueWithoutAnEntry) {
  int (*add)(int, int) = nullptr;
  EXPECT_EQ(quarn::CallEntry(add, -1, 2, 3), -1);
  void (*set)(int*) = nullptr;
  int value = 0;
  quarn::CallEntry(set, &value);
  EXPECT_EQ(value, 0);
}

}  // namespace
