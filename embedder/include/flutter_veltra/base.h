/*
 * The base of all headers of the embedder's C interface: conventions, handles, slots, layout
 * checks.
 *
 * A plug-in is given a FlutterVeltraPluginContext (plugin_context.h). Its entries load the
 * procedure tables of one engine: application.h, messenger.h, view.h, texture.h.
 *
 * Conventions, which each entry's comment refers to:
 *
 *  1. Sizes. Every structure begins with `size`, its size in bytes as the side that filled it knows
 *     it. A field at offset o exists only if size >= o + 8; whoever reads treats the rest as null,
 *     whoever fills leaves it alone. Fields are only ever appended. Before calling an entry, check
 *     that the size covers it and that it is not null: an older embedder lacks what is newer.
 *  2. Handles. Engines and responses are handles: opaque, null for none, never used again for
 *     another object. An entry that is given the handle of something that is gone does nothing,
 *     and returns false, 0 or null.
 *  3. Strings. UTF-8, ended by NUL. Those passed in are copied before the entry returns. Those
 *     returned are the embedder's: they stay valid until the same entry is called again for the
 *     engine, or until the engine ends. Null stands for "there is none".
 *  4. Slots. A slot is what a callback needs to cross the interface: a function, its first
 *     argument, and the function that frees this argument. Whoever is passed a slot copies it
 *     before the entry returns and owns what it holds, also when the entry fails: `release` runs
 *     exactly once, and after it nothing runs any more. A callback may call any entry, also one
 *     that ends the very subscription that called it. `release` must not throw.
 *  5. Subscriptions. A subscribe entry returns an id above 0, or 0 when it failed; the callback
 *     runs at each change until the id is unsubscribed or the engine ends, and is then released.
 *  6. Threads. [platform] marks what belongs to the engine's one platform thread: entries are
 *     called there, and callbacks run there. [any] may be called from any thread.
 *  7. Enumerations cross the interface as int32_t, so that a value newer than either side harms
 *     nobody.
 */
#ifndef FLUTTER_VELTRA_BASE_H
#define FLUTTER_VELTRA_BASE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define FLUTTER_VELTRA_ASSERT(condition) static_assert(condition, #condition)
#else
#define FLUTTER_VELTRA_ASSERT(condition) _Static_assert(condition, #condition)
#endif
#define FLUTTER_VELTRA_AT(type, field, offset) \
  FLUTTER_VELTRA_ASSERT(offsetof(type, field) == (offset))

/* One engine: one isolate of Dart code with its plug-ins. */
typedef struct _FlutterVeltraEngine _FlutterVeltraEngine;

/* A callback without arguments. */
typedef struct FlutterVeltraSlot {
  size_t size;
  void (*callback)(void* user_data);
  void (*release)(void* user_data);
  void* user_data;
} FlutterVeltraSlot;

/* A callback that is told yes or no. */
typedef struct FlutterVeltraBoolSlot {
  size_t size;
  void (*callback)(void* user_data, bool value);
  void (*release)(void* user_data);
  void* user_data;
} FlutterVeltraBoolSlot;

FLUTTER_VELTRA_ASSERT(sizeof(size_t) == 8 && sizeof(void*) == 8);

FLUTTER_VELTRA_AT(FlutterVeltraSlot, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraSlot, callback, 8);
FLUTTER_VELTRA_AT(FlutterVeltraSlot, release, 16);
FLUTTER_VELTRA_AT(FlutterVeltraSlot, user_data, 24);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraSlot) == 32);

FLUTTER_VELTRA_AT(FlutterVeltraBoolSlot, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraBoolSlot, callback, 8);
FLUTTER_VELTRA_AT(FlutterVeltraBoolSlot, release, 16);
FLUTTER_VELTRA_AT(FlutterVeltraBoolSlot, user_data, 24);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraBoolSlot) == 32);

#endif /* FLUTTER_VELTRA_BASE_H */
