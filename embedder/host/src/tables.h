// The procedure tables: how the C entries reach an engine's parts.
#ifndef VELTRA_HOST_SRC_TABLES_H
#define VELTRA_HOST_SRC_TABLES_H

#include <flutter_veltra/plugin_context.h>

#include <cstddef>
#include <cstdint>

namespace veltra::host {

// The context's loading entries.
bool LoadApplicationTable(_FlutterVeltraEngine* engine, FlutterVeltraApplicationProcTable* table,
                          std::size_t size);
bool LoadMessengerTable(_FlutterVeltraEngine* engine, FlutterVeltraMessengerProcTable* table,
                        std::size_t size);
bool LoadViewTable(_FlutterVeltraEngine* engine, FlutterVeltraViewProcTable* table,
                   std::size_t size);
bool LoadTextureTable(_FlutterVeltraEngine* engine, FlutterVeltraTextureProcTable* table,
                      std::size_t size);

// The entry that each message carries.
void SendMessengerResponse(_FlutterVeltraEngine* engine, _FlutterVeltraResponse* response,
                           const std::uint8_t* data, std::size_t data_size);

}  // namespace veltra::host

#endif  // VELTRA_HOST_SRC_TABLES_H
