/* External textures: pictures that a plug-in makes and Dart shows. Conventions: base.h. */
#ifndef FLUTTER_VELTRA_TEXTURE_H
#define FLUTTER_VELTRA_TEXTURE_H

#include <flutter_veltra/base.h>

/* One frame in memory: `height` rows of `width` pixels of 4 bytes (red, green, blue, alpha),
   without gaps. The embedder calls `release`, unless it is null, when it has read the pixels. */
typedef struct FlutterVeltraPixelBuffer {
  size_t size;
  const uint8_t* pixels;
  size_t width;
  size_t height;
  void (*release)(void* release_data);
  void* release_data;
} FlutterVeltraPixelBuffer;

/* One frame in an OpenGL texture of the engine's context or of one that shares with it. `target`,
   `name` and `format` are OpenGL's numbers. `release` as above. */
typedef struct FlutterVeltraOpenGLFrame {
  size_t size;
  uint64_t target;
  uint64_t name;
  uint64_t format;
  size_t width;
  size_t height;
  void (*release)(void* release_data);
  void* release_data;
} FlutterVeltraOpenGLFrame;

/* The argument of RegisterTexture. Exactly one of its frame callbacks is set: it is asked for a
   frame of about `width` by `height` pixels, fills the structure (which comes zeroed, with its
   size) and returns true, or returns false when there is no frame. They are called one at a time,
   but from whatever thread draws. `release` frees user_data once the texture is unregistered. */
typedef struct FlutterVeltraTexture {
  size_t size;
  bool (*GetPixelBuffer)(void* user_data, size_t width, size_t height,
                         FlutterVeltraPixelBuffer* frame);
  bool (*GetOpenGLFrame)(void* user_data, size_t width, size_t height,
                         FlutterVeltraOpenGLFrame* frame);
  void (*release)(void* user_data);
  void* user_data;
} FlutterVeltraTexture;

typedef struct FlutterVeltraTextureProcTable {
  size_t size;
  /* The texture's id, which Dart shows it by, above 0; 0 on failure. Owns what the structure holds
     in any case, as convention 4 has it. [platform] */
  int64_t (*RegisterTexture)(_FlutterVeltraEngine* engine, const FlutterVeltraTexture* texture);
  /* There is a new frame to ask for. False for an unknown id. [any] */
  bool (*MarkTextureFrameAvailable)(_FlutterVeltraEngine* engine, int64_t id);
  /* Ends the texture. `done`, unless it is null, is called once its callbacks will not run any
     more, on the platform thread; at once, but not before this entry returns, for an unknown id.
     [platform] */
  void (*UnregisterTexture)(_FlutterVeltraEngine* engine, int64_t id,
                            const FlutterVeltraSlot* done);
} FlutterVeltraTextureProcTable;

FLUTTER_VELTRA_AT(FlutterVeltraPixelBuffer, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraPixelBuffer, pixels, 8);
FLUTTER_VELTRA_AT(FlutterVeltraPixelBuffer, width, 16);
FLUTTER_VELTRA_AT(FlutterVeltraPixelBuffer, height, 24);
FLUTTER_VELTRA_AT(FlutterVeltraPixelBuffer, release, 32);
FLUTTER_VELTRA_AT(FlutterVeltraPixelBuffer, release_data, 40);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraPixelBuffer) == 48);

FLUTTER_VELTRA_AT(FlutterVeltraOpenGLFrame, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraOpenGLFrame, target, 8);
FLUTTER_VELTRA_AT(FlutterVeltraOpenGLFrame, name, 16);
FLUTTER_VELTRA_AT(FlutterVeltraOpenGLFrame, format, 24);
FLUTTER_VELTRA_AT(FlutterVeltraOpenGLFrame, width, 32);
FLUTTER_VELTRA_AT(FlutterVeltraOpenGLFrame, height, 40);
FLUTTER_VELTRA_AT(FlutterVeltraOpenGLFrame, release, 48);
FLUTTER_VELTRA_AT(FlutterVeltraOpenGLFrame, release_data, 56);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraOpenGLFrame) == 64);

FLUTTER_VELTRA_AT(FlutterVeltraTexture, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraTexture, GetPixelBuffer, 8);
FLUTTER_VELTRA_AT(FlutterVeltraTexture, GetOpenGLFrame, 16);
FLUTTER_VELTRA_AT(FlutterVeltraTexture, release, 24);
FLUTTER_VELTRA_AT(FlutterVeltraTexture, user_data, 32);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraTexture) == 40);

FLUTTER_VELTRA_AT(FlutterVeltraTextureProcTable, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraTextureProcTable, RegisterTexture, 8);
FLUTTER_VELTRA_AT(FlutterVeltraTextureProcTable, MarkTextureFrameAvailable, 16);
FLUTTER_VELTRA_AT(FlutterVeltraTextureProcTable, UnregisterTexture, 24);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraTextureProcTable) == 32);

#endif /* FLUTTER_VELTRA_TEXTURE_H */
