/* The structure that an embedder hands to a plug-in when it registers it. Conventions: base.h. */
#ifndef FLUTTER_VELTRA_PLUGIN_CONTEXT_H
#define FLUTTER_VELTRA_PLUGIN_CONTEXT_H

#include <flutter_veltra/application.h>
#include <flutter_veltra/base.h>
#include <flutter_veltra/messenger.h>
#include <flutter_veltra/texture.h>
#include <flutter_veltra/view.h>

/* The interface's release that these headers describe; FlutterVeltraPluginContext.api_version tells
   the embedder's. */
#define FLUTTER_VELTRA_API_VERSION 1

/* Told that an engine ends. Its handle still works during the call. [platform] */
typedef void (*FlutterVeltraRegistrarDestroyedCallback)(_FlutterVeltraEngine* engine);

/* Owned by the embedder; good while its engine lives. Each loading entry zeroes the `table_size`
   bytes at `table`, states as the table's size how many of them the embedder knows (as
   `table_size`, or less if it is older) and fills those, by convention 1; it returns false, with
   nothing touched, for a null table or an engine that is gone. [platform] */
typedef struct FlutterVeltraPluginContext {
  size_t size;
  /* For logs only: what exists is told by the sizes alone. */
  uint64_t api_version;
  _FlutterVeltraEngine* engine;
  bool (*ApplicationProcTableLoad)(_FlutterVeltraEngine* engine,
                                   FlutterVeltraApplicationProcTable* table, size_t table_size);
  /* Has `callback` called once, when the engine ends. Each call adds one. [platform] */
  void (*SetRegistrarDestroyedCallback)(_FlutterVeltraEngine* engine,
                                        FlutterVeltraRegistrarDestroyedCallback callback);
  bool (*ViewProcTableLoad)(_FlutterVeltraEngine* engine, FlutterVeltraViewProcTable* table,
                            size_t table_size);
  bool (*TextureProcTableLoad)(_FlutterVeltraEngine* engine, FlutterVeltraTextureProcTable* table,
                               size_t table_size);
  /* Whether the calling thread is the engine's platform thread. [any] */
  bool (*RunsOnPlatformThread)(_FlutterVeltraEngine* engine);
  bool (*MessengerProcTableLoad)(_FlutterVeltraEngine* engine,
                                 FlutterVeltraMessengerProcTable* table, size_t table_size);
} FlutterVeltraPluginContext;

/* How a plug-in makes itself known. A plug-in Foo exports FooRegisterWithRegistrar of this type. */
typedef void (*FlutterVeltraRegisterPlugin)(FlutterVeltraPluginContext* context);

FLUTTER_VELTRA_AT(FlutterVeltraPluginContext, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraPluginContext, api_version, 8);
FLUTTER_VELTRA_AT(FlutterVeltraPluginContext, engine, 16);
FLUTTER_VELTRA_AT(FlutterVeltraPluginContext, ApplicationProcTableLoad, 24);
FLUTTER_VELTRA_AT(FlutterVeltraPluginContext, SetRegistrarDestroyedCallback, 32);
FLUTTER_VELTRA_AT(FlutterVeltraPluginContext, ViewProcTableLoad, 40);
FLUTTER_VELTRA_AT(FlutterVeltraPluginContext, TextureProcTableLoad, 48);
FLUTTER_VELTRA_AT(FlutterVeltraPluginContext, RunsOnPlatformThread, 56);
FLUTTER_VELTRA_AT(FlutterVeltraPluginContext, MessengerProcTableLoad, 64);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraPluginContext) == 72);

#endif /* FLUTTER_VELTRA_PLUGIN_CONTEXT_H */
