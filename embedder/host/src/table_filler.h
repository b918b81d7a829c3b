// TableFiller: fills a table as the embedder that the options describe would.
#ifndef VELTRA_HOST_SRC_TABLE_FILLER_H
#define VELTRA_HOST_SRC_TABLE_FILLER_H

#include <quarn/sized_struct.h>
#include <veltra/host/engine_options.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <type_traits>

namespace veltra::host {

template <class Table>
class TableFiller {
 public:
  // `size` bytes are allocated, of which the embedder knows `known_size`: all are zeroed, and what
  // it knows is what the table states.
  TableFiller(Table* table, std::size_t size, std::size_t known_size, const EngineOptions& options)
      : filler_(Zero(table, size), std::min(size, known_size)), options_(options) {}

  template <class Field>
  TableFiller& Fill(const char* name, Field Table::*field, std::common_type_t<Field> value) {
    if (options_.missing_entries.count(name) == 0) {
      filler_.Fill(field, value);
    }
    return *this;
  }

 private:
  static Table* Zero(Table* table, std::size_t size) {
    std::memset(static_cast<void*>(table), 0, size);
    return table;
  }

  quarn::StructFiller<Table> filler_;
  const EngineOptions& options_;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_SRC_TABLE_FILLER_H
