/*
 * The C interface of libtarv.so: background tasks, their messages, and intents.
 *
 * The library exports one C function, TARVProcTableLoad. It fills the root table, whose entries
 * hand out a manager and three more tables: RPC client, RPC server, intent manager.
 *
 * Conventions, which each slot's comment refers to:
 *
 *  1. Sizes. Every table and slot structure begins with `size`, its size in bytes as the side that
 *     allocated it knows it. A field at offset o exists only if size >= o + 8; whoever reads treats
 *     the rest as null, whoever fills leaves it alone. Fields are only ever appended. Before
 *     calling an entry, check that the table's size covers it and that it is not null.
 *  2. Handles. A handle is a number in a pointer's clothes: never an address, never used again for
 *     another object, null for no object. Handles of objects that are gone simply stop working.
 *  3. Results. 0 success; 2 an argument is invalid (null, empty, or a handle that is unknown);
 *     3 refused: the object is missing, not ready or in the wrong state.
 *  4. Strings. UTF-8, ended by NUL. Those passed in are copied before the entry returns.
 *  5. Chunks. A callback's `message` stays valid until the receiver gives its `chunk` back with
 *     UnlockResources, or until the object that sent it is gone. Chunk 0 comes with a static empty
 *     string and needs no unlocking.
 *  6. Slots. A slot structure passed in is copied before the entry returns; it may live on the
 *     stack. `user_data` is the first argument of its callbacks. Its release callback, if there is
 *     one, runs exactly once, after which the library makes no further call with that user_data.
 *     Any callback may be null, and may call any entry, also one that ends the very object that
 *     called it. An intent stays registered, and its slot unreleased, as long as the process lives.
 *  7. Threads. [service] marks what belongs to the one thread, with a Qt event loop, from which the
 *     application or task uses the library: entries are called there, and callbacks run there,
 *     synchronously. [any] may be called from any thread, also while the object ends on its own.
 *  8. Exceptions. No entry throws but for exhausted memory, a null message to the server's
 *     SendMessage, and what a callback that it runs throws. When memory runs out, StartTask and Run
 *     have not taken their slots, which the caller still owns; OpenUri and RegisterIntent have taken
 *     and released theirs. An exception of the Release callback of
 *     a client's or server's slots becomes an error line of the log; the release callbacks of the
 *     other slots must not throw, for that would end the process.
 */
#ifndef TARV_TARV_CAPI_H
#define TARV_TARV_CAPI_H

#include <quarn/export.h>
#include <quarn/result.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _TARVManagerRef _TARVManagerRef;
typedef struct _TARVRpcClientRef _TARVRpcClientRef;
typedef struct _TARVRpcServerRef _TARVRpcServerRef;
typedef struct _TARVIntentManagerRef _TARVIntentManagerRef;

/* ---- Slots: what a caller wants to be told ------------------------------------------------- */

/* Passed to StartTask. */
typedef struct TARVRpcClientSlots {
  size_t size;
  /* The task runs and its channel is open (code 0, "", chunk 0), or could not be started (code
     -32603, the platform's reason, a chunk). At most once: a client that ends while its task is
     starting hears nothing of the start. [service] */
  void (*OnStarted)(void* user_data, int code, const char* message, size_t chunk);
  /* The channel is closed: by Release (code 0, "", chunk 0), or because the task ended or its
     channel was lost (a code, the platform's reason, a chunk). That code is the platform's where it
     lies in -32099 to -32000, which JSON-RPC leaves to servers, else -32603. At most once, after
     the last message; never when the manager's Release ends the client. Where memory is exhausted,
     the reason is "" with chunk 0. [service] */
  void (*OnDisconnect)(void* user_data, int code, const char* message, size_t chunk);
  /* One message of the task, in a chunk of its own. [service] */
  void (*OnMessage)(void* user_data, const char* message, size_t chunk);
  /* The client is gone; frees user_data. [service] */
  void (*Release)(void* user_data);
  void* user_data;
} TARVRpcClientSlots;

/* Passed to Run. */
typedef struct TARVRpcServerSlots {
  size_t size;
  /* The server runs (code 0, "", chunk 0). Once, before Run returns. [service] */
  void (*OnStarted)(void* user_data, int code, const char* message, size_t chunk);
  /* One message of the task's starter, in a chunk of its own. [service] */
  void (*OnMessage)(void* user_data, const char* message, size_t chunk);
  /* The server is gone; frees user_data. [service] */
  void (*Release)(void* user_data);
  void* user_data;
} TARVRpcServerSlots;

/* Passed to OpenUri. */
typedef struct TARVOpenUriSlot {
  size_t size;
  /* The platform's answer. At most once. [service] */
  void (*callback)(void* user_data, bool success);
  /* Frees user_data. Must not throw. [service] */
  void (*release)(void* user_data);
  void* user_data;
} TARVOpenUriSlot;

/* Handed to the callback of a TARVRegisterIntentSlot: how the application answers. The structure
   lives only for that call; copy its fields to answer later. */
typedef struct TARVReplyIntentSlot {
  size_t size;
  /* Sends the answer: a map value in the standard codec's bytes, copied before it returns. At most
     once. [service] */
  void (*callback)(void* user_data, const uint8_t* data, size_t length);
  /* Call exactly once, whether or not there was an answer. [service] */
  void (*release)(void* user_data);
  void* user_data;
} TARVReplyIntentSlot;

/* Passed to RegisterIntent. */
typedef struct TARVRegisterIntentSlot {
  size_t size;
  /* Somebody invoked the intent. Once for each invocation. [service] */
  void (*callback)(void* user_data, TARVReplyIntentSlot* reply);
  /* Frees user_data. Must not throw. [service] */
  void (*release)(void* user_data);
  void* user_data;
} TARVRegisterIntentSlot;

/* ---- Tables -------------------------------------------------------------------------------- */

typedef struct TARVRpcClientProcTable {
  size_t size;
  /* Starts the task `task_name` with the arguments "--libs-path" `libs_path`; the outcome arrives
     through the slots. A client starts at most once in its life, also after a failed start.
     Returns 0; 2 for a null or empty string or an unknown client; 3 when the client has been
     started before. Slots are taken only with 0; null slots mean that nobody listens. [service] */
  QuarnResult (*StartTask)(_TARVRpcClientRef* client, const char* task_name, const char* libs_path,
                           TARVRpcClientSlots* slots);
  /* Gives a message's chunk back; its text must not be read any more. Nothing for chunk 0 or an
     unknown client. [service] */
  void (*UnlockResources)(_TARVRpcClientRef* client, size_t chunk);
  /* Sends a message to the task; delivery is not confirmed. Messages of one thread keep their
     order. Returns 0, or 3 for an unknown client, a null message, one of 1 GiB or more, or a client
     whose channel is not open, as in its OnDisconnect. [any] */
  QuarnResult (*SendMessage)(_TARVRpcClientRef* client, const char* message);
  /* Ends the client: the handle stops working at once; a running task gets OnDisconnect(0, "", 0),
     is stopped, and then the client goes and its Release slot runs. A client that is not running
     goes with the manager's Release. [service] */
  void (*Release)(_TARVRpcClientRef* client);
} TARVRpcClientProcTable;

typedef struct TARVRpcServerProcTable {
  size_t size;
  /* Opens the channel to the task's starter and calls OnStarted before it returns. Takes effect
     once for a server; the slots of a later call are neither used nor released. [service] */
  void (*Run)(_TARVRpcServerRef* server, TARVRpcServerSlots* slots);
  /* As the client's entry. [service] */
  void (*UnlockResources)(_TARVRpcServerRef* server, size_t chunk);
  /* Sends a message, which must not be null, to the starter; delivery is not confirmed. Messages of
     one thread keep their order. Returns 0, or 3 for an unknown server, one that does not run or a
     message of 1 GiB or more. [any] */
  QuarnResult (*SendMessage)(_TARVRpcServerRef* server, const char* message);
} TARVRpcServerProcTable;

typedef struct TARVIntentManagerProcTable {
  size_t size;
  /* Asks the platform to open `uri`; the answer arrives through the slot. Requests are served one
     at a time, in order. Returns 0; 2 for a null argument; 3 for an unknown intent manager; the
     slot is taken only with 0. [service] */
  QuarnResult (*OpenUri)(_TARVIntentManagerRef* intents, const char* uri, TARVOpenUriSlot* slot);
  /* Registers an intent for the life of the process; the slot's callback answers each invocation.
     Results as OpenUri. [service] */
  QuarnResult (*RegisterIntent)(_TARVIntentManagerRef* intents, const char* name,
                                TARVRegisterIntentSlot* slot);
} TARVIntentManagerProcTable;

/* The root table. Its loading entries fill `size` bytes at `table` by convention 1 and return 0, or
   2 for a null table. */
typedef struct TARVProcTable {
  size_t size;
  /* The process's manager, made by the first call; null when that failed, then and ever after.
   * [any] */
  _TARVManagerRef* (*Initialize)(void);
  /* Lets go of all clients, then of the server, then of the intent manager, whose slots are
     released and not told. Each step is taken once, over what is there when it begins: what their
     callbacks make stays, unless its step is still to come. An object that is in the middle of a
     callback keeps its handle until that returns. The manager itself, and its handle, live on.
     [service] */
  void (*Release)(_TARVManagerRef* manager);
  /* The manager's intent manager, made by the first call; null on failure. Owned by the manager.
     [service] */
  _TARVIntentManagerRef* (*GetIntentManager)(_TARVManagerRef* manager);
  /* [any] */
  QuarnResult (*IntentManagerProcTableLoad)(TARVIntentManagerProcTable* table, size_t size);
  /* A new client, which the manager owns until it has stopped; null on failure. [service] */
  _TARVRpcClientRef* (*CreateRpcClient)(_TARVManagerRef* manager);
  /* [any] */
  QuarnResult (*RpcClientProcTableLoad)(TARVRpcClientProcTable* table, size_t size);
  /* The manager's RPC server, made by the first call; null on failure. Owned by the manager.
     [service] */
  _TARVRpcServerRef* (*GetRpcServer)(_TARVManagerRef* manager);
  /* [any] */
  QuarnResult (*RpcServerProcTableLoad)(TARVRpcServerProcTable* table, size_t size);
} TARVProcTable;

/* Fills the root table, of which `size` bytes are allocated, by convention 1. Returns 0, or 2 for a
   null table. [any] */
TARV_EXPORT QuarnResult TARVProcTableLoad(TARVProcTable* table, size_t size);

/* ---- The layout, held by the compiler ------------------------------------------------------ */

#ifdef __cplusplus
#define TARV_DETAILS_ASSERT(condition) static_assert(condition, #condition)
#else
#define TARV_DETAILS_ASSERT(condition) _Static_assert(condition, #condition)
#endif
#define TARV_DETAILS_AT(type, field, offset) TARV_DETAILS_ASSERT(offsetof(type, field) == (offset))

TARV_DETAILS_ASSERT(sizeof(size_t) == 8 && sizeof(void*) == 8 && sizeof(QuarnResult) == 4);

TARV_DETAILS_AT(TARVRpcClientSlots, size, 0);
TARV_DETAILS_AT(TARVRpcClientSlots, OnStarted, 8);
TARV_DETAILS_AT(TARVRpcClientSlots, OnDisconnect, 16);
TARV_DETAILS_AT(TARVRpcClientSlots, OnMessage, 24);
TARV_DETAILS_AT(TARVRpcClientSlots, Release, 32);
TARV_DETAILS_AT(TARVRpcClientSlots, user_data, 40);
TARV_DETAILS_ASSERT(sizeof(TARVRpcClientSlots) == 48);

TARV_DETAILS_AT(TARVRpcServerSlots, size, 0);
TARV_DETAILS_AT(TARVRpcServerSlots, OnStarted, 8);
TARV_DETAILS_AT(TARVRpcServerSlots, OnMessage, 16);
TARV_DETAILS_AT(TARVRpcServerSlots, Release, 24);
TARV_DETAILS_AT(TARVRpcServerSlots, user_data, 32);
TARV_DETAILS_ASSERT(sizeof(TARVRpcServerSlots) == 40);

TARV_DETAILS_AT(TARVOpenUriSlot, size, 0);
TARV_DETAILS_AT(TARVOpenUriSlot, callback, 8);
TARV_DETAILS_AT(TARVOpenUriSlot, release, 16);
TARV_DETAILS_AT(TARVOpenUriSlot, user_data, 24);
TARV_DETAILS_ASSERT(sizeof(TARVOpenUriSlot) == 32);

TARV_DETAILS_AT(TARVReplyIntentSlot, size, 0);
TARV_DETAILS_AT(TARVReplyIntentSlot, callback, 8);
TARV_DETAILS_AT(TARVReplyIntentSlot, release, 16);
TARV_DETAILS_AT(TARVReplyIntentSlot, user_data, 24);
TARV_DETAILS_ASSERT(sizeof(TARVReplyIntentSlot) == 32);

TARV_DETAILS_AT(TARVRegisterIntentSlot, size, 0);
TARV_DETAILS_AT(TARVRegisterIntentSlot, callback, 8);
TARV_DETAILS_AT(TARVRegisterIntentSlot, release, 16);
TARV_DETAILS_AT(TARVRegisterIntentSlot, user_data, 24);
TARV_DETAILS_ASSERT(sizeof(TARVRegisterIntentSlot) == 32);

TARV_DETAILS_AT(TARVRpcClientProcTable, size, 0);
TARV_DETAILS_AT(TARVRpcClientProcTable, StartTask, 8);
TARV_DETAILS_AT(TARVRpcClientProcTable, UnlockResources, 16);
TARV_DETAILS_AT(TARVRpcClientProcTable, SendMessage, 24);
TARV_DETAILS_AT(TARVRpcClientProcTable, Release, 32);
TARV_DETAILS_ASSERT(sizeof(TARVRpcClientProcTable) == 40);

TARV_DETAILS_AT(TARVRpcServerProcTable, size, 0);
TARV_DETAILS_AT(TARVRpcServerProcTable, Run, 8);
TARV_DETAILS_AT(TARVRpcServerProcTable, UnlockResources, 16);
TARV_DETAILS_AT(TARVRpcServerProcTable, SendMessage, 24);
TARV_DETAILS_ASSERT(sizeof(TARVRpcServerProcTable) == 32);

TARV_DETAILS_AT(TARVIntentManagerProcTable, size, 0);
TARV_DETAILS_AT(TARVIntentManagerProcTable, OpenUri, 8);
TARV_DETAILS_AT(TARVIntentManagerProcTable, RegisterIntent, 16);
TARV_DETAILS_ASSERT(sizeof(TARVIntentManagerProcTable) == 24);

TARV_DETAILS_AT(TARVProcTable, size, 0);
TARV_DETAILS_AT(TARVProcTable, Initialize, 8);
TARV_DETAILS_AT(TARVProcTable, Release, 16);
TARV_DETAILS_AT(TARVProcTable, GetIntentManager, 24);
TARV_DETAILS_AT(TARVProcTable, IntentManagerProcTableLoad, 32);
TARV_DETAILS_AT(TARVProcTable, CreateRpcClient, 40);
TARV_DETAILS_AT(TARVProcTable, RpcClientProcTableLoad, 48);
TARV_DETAILS_AT(TARVProcTable, GetRpcServer, 56);
TARV_DETAILS_AT(TARVProcTable, RpcServerProcTableLoad, 64);
TARV_DETAILS_ASSERT(sizeof(TARVProcTable) == 72);

#ifdef __cplusplus
}
#endif

#endif /* TARV_TARV_CAPI_H */
