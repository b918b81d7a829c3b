// quarn::LibraryApi: a procedure table that a loaded library filled, and how its entries are
// called.
#ifndef QUARN_LIBRARY_API_H
#define QUARN_LIBRARY_API_H

#include <quarn/library.h>
#include <quarn/logger.h>
#include <quarn/result.h>
#include <quarn/sized_struct.h>

#include <cstdint>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

namespace quarn {

namespace details {

// The entry when the table provides it: its stated size covers the entry, and it is not null.
// Otherwise null, after an error line.
template <class Table, class Entry>
Entry FindEntry(const Table& table, Entry Table::*entry, std::string_view name,
                std::string_view location) {
  const Entry found = ReadField(&table, entry);
  if (found == nullptr) {
    QUARN_LOG_ERROR_AT(location) << "Method '" << name << "' is not provided by the loaded API.";
  }
  return found;
}

}  // namespace details

// A pointer to the entry `name` of a procedure table, or null after the line
// "Method 'name' is not provided by the loaded API.".
#define QUARN_FIND_ENTRY(table, name) \
  ::quarn::details::FindEntry((table), &std::decay_t<decltype(table)>::name, #name, QUARN_LOCATION)

// Calls what QUARN_FIND_ENTRY found with `args`, or returns `failure` when it found nothing.
//
//   return CallEntry(QUARN_FIND_ENTRY(api->GetTable(), SendMessage), QUARN_RESULT_REFUSED, client,
//   text);
template <class Result, class... Params, class... Args>
Result CallEntry(Result (*entry)(Params...), Result failure, Args&&... args) {
  return entry != nullptr ? entry(std::forward<Args>(args)...) : failure;
}

// The same for an entry that returns nothing.
template <class... Params, class... Args>
void CallEntry(void (*entry)(Params...), Args&&... args) {
  if (entry != nullptr) {
    entry(std::forward<Args>(args)...);
  }
}

// `Table` is a size-versioned C structure: a 64-bit size, then function pointers. The table keeps
// its library loaded.
template <class Table>
class LibraryApi {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  // Fills the table, of which `size` bytes are allocated; zero means success.
  using Loader = QuarnResult (*)(Table* table, std::uint64_t size);

  LibraryApi(PrivateTag, std::shared_ptr<Library> library) : library_(std::move(library)) {
    table_.size = sizeof(Table);
  }

  // A table filled by `loader`, which `library` provides. Empty, after a log line, when either is
  // missing or the loader fails.
  static std::unique_ptr<LibraryApi> Create(const std::shared_ptr<Library>& library,
                                            Loader loader) {
    if (!library) {
      QUARN_LOG_ERROR_AT(QUARN_LOCATION_IN("quarn/include/quarn/library_api.h"))
          << "No library provided.";
      return nullptr;
    }
    if (loader == nullptr) {
      QUARN_LOG_ERROR_AT(QUARN_LOCATION_IN("quarn/include/quarn/library_api.h"))
          << "No proc table loader function provided.";
      return nullptr;
    }
    auto api = std::make_unique<LibraryApi>(PrivateTag(), library);
    if (loader(&api->table_, sizeof(Table)) != QUARN_RESULT_SUCCESS) {
      QUARN_LOG_ERROR_AT(QUARN_LOCATION_IN("quarn/include/quarn/library_api.h"))
          << "Failed to load proc table.";
      return nullptr;
    }
    return api;
  }

  const Table& GetTable() const { return table_; }
  const std::shared_ptr<Library>& GetLibrary() const { return library_; }

 private:
  std::shared_ptr<Library> library_;
  Table table_{};
};

}  // namespace quarn

#endif  // QUARN_LIBRARY_API_H
