/* The headers compile as C, and C sees the layout that the embedder's users rely on. */
#include <flutter_veltra/plugin_context.h>

_Static_assert(offsetof(FlutterVeltraPluginContext, size) == 0, "the size comes first");
_Static_assert(offsetof(FlutterVeltraPluginContext, engine) == 16, "engine in bytes 16 to 23");
_Static_assert(offsetof(FlutterVeltraPluginContext, SetRegistrarDestroyedCallback) == 32,
               "registrar-destroyed entry in bytes 32 to 39");
_Static_assert(offsetof(FlutterVeltraPluginContext, MessengerProcTableLoad) == 64,
               "messenger table loader in bytes 64 to 71");
_Static_assert(sizeof(FlutterVeltraMessengerProcTable) == 40, "the messenger table has 40 bytes");

size_t VeltraTestSizeOfContextInC(void);
size_t VeltraTestSizeOfViewTableInC(void);

size_t VeltraTestSizeOfContextInC(void) { return sizeof(FlutterVeltraPluginContext); }
size_t VeltraTestSizeOfViewTableInC(void) { return sizeof(FlutterVeltraViewProcTable); }
