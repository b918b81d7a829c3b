/* The messenger: bytes on named channels, between plug-ins and Dart. Conventions: base.h. */
#ifndef FLUTTER_VELTRA_MESSENGER_H
#define FLUTTER_VELTRA_MESSENGER_H

#include <flutter_veltra/base.h>

/* A message that waits for its response. */
typedef struct _FlutterVeltraResponse _FlutterVeltraResponse;

/* A message from Dart, as a message handler sees it. The structure and what it points to live for
   that call only; `response` is good until it has been used. */
typedef struct FlutterVeltraMessage {
  size_t size;
  const char* channel;
  const uint8_t* message; /* null when there are no bytes */
  size_t message_size;
  /* Null when the sender wants no response. */
  _FlutterVeltraResponse* response;
  /* Sends the response, during the handler's call or at any later time; the bytes are copied. No
     bytes mean "not implemented". The handle works once. [platform] */
  void (*SendResponse)(_FlutterVeltraEngine* engine, _FlutterVeltraResponse* response,
                       const uint8_t* data, size_t data_size);
} FlutterVeltraMessage;

/* Takes the reply to a message; null and 0 when Dart gave none. */
typedef void (*FlutterVeltraReplyCallback)(void* user_data, const uint8_t* data, size_t data_size);

typedef void (*FlutterVeltraMessageCallback)(void* user_data, const FlutterVeltraMessage* message);

typedef struct FlutterVeltraMessengerProcTable {
  size_t size;
  /* Sends the bytes, which are copied, to Dart. When it returns true, `reply`, unless it is null,
     runs exactly once, later, with the reply, or with null and 0 when nobody answers any more. When
     it returns false, the message was not sent and `reply` never runs. [platform] */
  bool (*Send)(_FlutterVeltraEngine* engine, const char* channel, const uint8_t* message,
               size_t message_size, FlutterVeltraReplyCallback reply, void* user_data);
  /* Installs the channel's only handler, in place of the one before. A null callback removes it.
     The embedder lets go of all handlers when the engine ends. [platform] */
  void (*SetMessageHandler)(_FlutterVeltraEngine* engine, const char* channel,
                            FlutterVeltraMessageCallback callback, void* user_data);
  /* The slot is told when Dart begins (true) and ends (false) to listen on the channel.
     Convention 5. [platform] */
  uint64_t (*OnChannelUpdateSubscribe)(_FlutterVeltraEngine* engine, const char* channel,
                                       const FlutterVeltraBoolSlot* slot);
  /* Nothing for an id that is unknown on this channel. [platform] */
  void (*OnChannelUpdateUnsubscribe)(_FlutterVeltraEngine* engine, const char* channel,
                                     uint64_t id);
} FlutterVeltraMessengerProcTable;

FLUTTER_VELTRA_AT(FlutterVeltraMessage, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraMessage, channel, 8);
FLUTTER_VELTRA_AT(FlutterVeltraMessage, message, 16);
FLUTTER_VELTRA_AT(FlutterVeltraMessage, message_size, 24);
FLUTTER_VELTRA_AT(FlutterVeltraMessage, response, 32);
FLUTTER_VELTRA_AT(FlutterVeltraMessage, SendResponse, 40);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraMessage) == 48);

FLUTTER_VELTRA_AT(FlutterVeltraMessengerProcTable, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraMessengerProcTable, Send, 8);
FLUTTER_VELTRA_AT(FlutterVeltraMessengerProcTable, SetMessageHandler, 16);
FLUTTER_VELTRA_AT(FlutterVeltraMessengerProcTable, OnChannelUpdateSubscribe, 24);
FLUTTER_VELTRA_AT(FlutterVeltraMessengerProcTable, OnChannelUpdateUnsubscribe, 32);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraMessengerProcTable) == 40);

#endif /* FLUTTER_VELTRA_MESSENGER_H */
