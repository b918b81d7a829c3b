// Reads the fields and loads the tables that a plug-in context offers.
#ifndef CW_SRC_PLUGIN_CONTEXT_H
#define CW_SRC_PLUGIN_CONTEXT_H

#include <flutter_veltra/plugin_context.h>
#include <quarn/sized_struct.h>

#include <cstddef>
#include <optional>
#include <string>

namespace cw::internal {

// The context's engine, or null: a null context, one that is too small, one without an engine.
inline _FlutterVeltraEngine* GetEngine(const FlutterVeltraPluginContext* context) {
  return quarn::ReadField(context, &FlutterVeltraPluginContext::engine);
}

template <class Table>
using TableLoader = bool (*)(_FlutterVeltraEngine* engine, Table* table, std::size_t size);

// The procedure table that the context's entry `loader` hands out. Empty when the context has no
// engine or no such entry, and when the entry fails.
template <class Table>
std::optional<Table> LoadTable(const FlutterVeltraPluginContext* context,
                               TableLoader<Table> FlutterVeltraPluginContext::*loader) {
  const auto load = quarn::ReadField(context, loader);
  _FlutterVeltraEngine* const engine = GetEngine(context);
  if (engine == nullptr || load == nullptr) {
    return std::nullopt;
  }
  Table table{};
  table.size = sizeof(Table);
  return load(engine, &table, sizeof(Table)) ? std::make_optional(table) : std::nullopt;
}

// A string that an embedder returned; null is empty.
inline std::string ToString(const char* text) { return text == nullptr ? "" : text; }

}  // namespace cw::internal

#endif  // CW_SRC_PLUGIN_CONTEXT_H
