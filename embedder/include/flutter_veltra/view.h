/* The view: the engine's window, its display, what it looks like and what happens to it.
   Conventions: base.h. */
#ifndef FLUTTER_VELTRA_VIEW_H
#define FLUTTER_VELTRA_VIEW_H

#include <flutter_veltra/base.h>

typedef enum FlutterVeltraWindowMode {
  FLUTTER_VELTRA_WINDOW_MODE_NORMAL = 0,
  FLUTTER_VELTRA_WINDOW_MODE_MAXIMIZED = 1,
  FLUTTER_VELTRA_WINDOW_MODE_MINIMIZED = 2,
  FLUTTER_VELTRA_WINDOW_MODE_FULLSCREEN = 3
} FlutterVeltraWindowMode;

typedef enum FlutterVeltraWindowType {
  FLUTTER_VELTRA_WINDOW_TYPE_MAIN = 0,
  FLUTTER_VELTRA_WINDOW_TYPE_POPUP = 1
} FlutterVeltraWindowType;

/* How the top of a picture is turned, clockwise from the device's natural position. */
typedef enum FlutterVeltraOrientation {
  FLUTTER_VELTRA_ORIENTATION_UNKNOWN = 0,
  FLUTTER_VELTRA_ORIENTATION_PORTRAIT = 1,
  FLUTTER_VELTRA_ORIENTATION_LANDSCAPE = 2,
  FLUTTER_VELTRA_ORIENTATION_PORTRAIT_FLIPPED = 3,
  FLUTTER_VELTRA_ORIENTATION_LANDSCAPE_FLIPPED = 4
} FlutterVeltraOrientation;

typedef enum FlutterVeltraStatusBarVisibility {
  FLUTTER_VELTRA_STATUS_BAR_HIDDEN = 0,
  FLUTTER_VELTRA_STATUS_BAR_VISIBLE = 1,
  FLUTTER_VELTRA_STATUS_BAR_TRANSPARENT = 2 /* drawn over the window's top edge */
} FlutterVeltraStatusBarVisibility;

/* Any function of the graphics library, to be cast to its own type. */
typedef void (*FlutterVeltraEglFunction)(void);
typedef FlutterVeltraEglFunction (*FlutterVeltraEglGetProcAddress)(const char* name);

/* The user's theme. Colours are 0xAARRGGBB in the lower 32 bits. */
typedef struct FlutterVeltraTheme {
  size_t size;
  const char* name;
  uint64_t is_dark; /* 1 or 0 */
  uint64_t primary_color;
  uint64_t secondary_color;
  uint64_t highlight_color;
  uint64_t background_color;
} FlutterVeltraTheme;

/* Bytes of the embedder's; null and 0 for none. */
typedef struct FlutterVeltraBytes {
  size_t size;
  const uint8_t* data;
  size_t data_size;
} FlutterVeltraBytes;

/* A lock on the embedder's memory: call `release` with `lock_data` exactly once. */
typedef struct FlutterVeltraResourcesLock {
  size_t size;
  void (*release)(void* lock_data);
  void* lock_data;
} FlutterVeltraResourcesLock;

typedef struct FlutterVeltraViewProcTable {
  size_t size;
  /* Null where the view is not drawn by EGL, as the next five. [platform] */
  void* (*GetEglConfig)(_FlutterVeltraEngine* engine);
  void* (*GetEglDisplay)(_FlutterVeltraEngine* engine);
  void* (*GetNativeDisplay)(_FlutterVeltraEngine* engine);
  FlutterVeltraEglGetProcAddress (*GetEglGetProcAddress)(_FlutterVeltraEngine* engine);
  /* The context that the engine draws with. [platform] */
  void* (*GetEglContext)(_FlutterVeltraEngine* engine);
  /* One that shares its objects, for work on another thread. [platform] */
  void* (*GetEglOffscreenContext)(_FlutterVeltraEngine* engine);
  /* Physical pixels to a logical one. [platform] */
  double (*GetDevicePixelRatio)(_FlutterVeltraEngine* engine);
  /* Whether any of the window can be seen. [platform] */
  bool (*GetWindowVisibility)(_FlutterVeltraEngine* engine);
  /* A FlutterVeltraWindowMode. [platform] */
  int32_t (*GetWindowMode)(_FlutterVeltraEngine* engine);
  /* A FlutterVeltraWindowType. [platform] */
  int32_t (*GetWindowType)(_FlutterVeltraEngine* engine);
  /* In physical pixels, as the height. [platform] */
  int32_t (*GetWindowWidth)(_FlutterVeltraEngine* engine);
  int32_t (*GetWindowHeight)(_FlutterVeltraEngine* engine);
  /* A FlutterVeltraOrientation, as the device's. [platform] */
  int32_t (*GetWindowOrientation)(_FlutterVeltraEngine* engine);
  int32_t (*GetDeviceOrientation)(_FlutterVeltraEngine* engine);
  /* A FlutterVeltraStatusBarVisibility. [platform] */
  int32_t (*GetStatusBarVisibility)(_FlutterVeltraEngine* engine);
  void (*SetStatusBarVisibility)(_FlutterVeltraEngine* engine, int32_t visibility);
  /* Whether the on-screen keyboard is shown. [platform] */
  bool (*GetKeyboardVisibility)(_FlutterVeltraEngine* engine);
  /* Whether the window's background is drawn; a window without one shows what is behind it.
     [platform] */
  bool (*GetBackgroundVisibility)(_FlutterVeltraEngine* engine);
  void (*SetBackgroundVisibility)(_FlutterVeltraEngine* engine, bool visible);
  /* Keeps what GetTheme and GetWindowPayload hand out valid and unchanged until the lock is
     released; without a lock it may go at any time. Locks may overlap: a change then shows once the
     last of them has been released. False, with nothing locked, for a null lock or one that is too
     short. [platform] */
  bool (*LockResources)(_FlutterVeltraEngine* engine, FlutterVeltraResourcesLock* lock);
  /* Fills the structure as far as its size goes. Needs a lock. [platform] */
  bool (*GetTheme)(_FlutterVeltraEngine* engine, FlutterVeltraTheme* theme);
  /* The value that the window was opened with, in the standard codec's bytes. Needs a lock.
     [platform] */
  bool (*GetWindowPayload)(_FlutterVeltraEngine* engine, FlutterVeltraBytes* payload);
  /* [platform], as the next three */
  void (*MaximizeWindow)(_FlutterVeltraEngine* engine);
  void (*MinimizeWindow)(_FlutterVeltraEngine* engine);
  void (*Fullscreen)(_FlutterVeltraEngine* engine);
  /* Brings the window to the front. */
  void (*Activate)(_FlutterVeltraEngine* engine);
  /* Opens a further window, which runs the Dart function `entry_point` with `payload`, a value in
     the standard codec's bytes, which is copied. [platform] */
  bool (*CreatePopupWindow)(_FlutterVeltraEngine* engine, const char* entry_point,
                            const uint8_t* payload, size_t payload_size);
  /* Closes the window and hands `payload`, a value in the standard codec's bytes, to whoever opened
     it. [platform] */
  void (*CloseWindow)(_FlutterVeltraEngine* engine, const uint8_t* payload, size_t payload_size);
  /* The slot is called after each change. Convention 5. [platform] */
  uint64_t (*WindowVisibilityChangedSubscribe)(_FlutterVeltraEngine* engine,
                                               const FlutterVeltraSlot* slot);
  /* Nothing for an unknown id. [platform] */
  void (*WindowVisibilityChangedUnsubscribe)(_FlutterVeltraEngine* engine, uint64_t id);
  uint64_t (*WindowOrientationChangedSubscribe)(_FlutterVeltraEngine* engine,
                                                const FlutterVeltraSlot* slot);
  void (*WindowOrientationChangedUnsubscribe)(_FlutterVeltraEngine* engine, uint64_t id);
  uint64_t (*DeviceOrientationChangedSubscribe)(_FlutterVeltraEngine* engine,
                                                const FlutterVeltraSlot* slot);
  void (*DeviceOrientationChangedUnsubscribe)(_FlutterVeltraEngine* engine, uint64_t id);
  uint64_t (*KeyboardVisibilityChangedSubscribe)(_FlutterVeltraEngine* engine,
                                                 const FlutterVeltraSlot* slot);
  void (*KeyboardVisibilityChangedUnsubscribe)(_FlutterVeltraEngine* engine, uint64_t id);
  uint64_t (*ThemeChangedSubscribe)(_FlutterVeltraEngine* engine, const FlutterVeltraSlot* slot);
  void (*ThemeChangedUnsubscribe)(_FlutterVeltraEngine* engine, uint64_t id);
} FlutterVeltraViewProcTable;

FLUTTER_VELTRA_AT(FlutterVeltraTheme, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraTheme, name, 8);
FLUTTER_VELTRA_AT(FlutterVeltraTheme, is_dark, 16);
FLUTTER_VELTRA_AT(FlutterVeltraTheme, primary_color, 24);
FLUTTER_VELTRA_AT(FlutterVeltraTheme, secondary_color, 32);
FLUTTER_VELTRA_AT(FlutterVeltraTheme, highlight_color, 40);
FLUTTER_VELTRA_AT(FlutterVeltraTheme, background_color, 48);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraTheme) == 56);

FLUTTER_VELTRA_AT(FlutterVeltraBytes, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraBytes, data, 8);
FLUTTER_VELTRA_AT(FlutterVeltraBytes, data_size, 16);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraBytes) == 24);

FLUTTER_VELTRA_AT(FlutterVeltraResourcesLock, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraResourcesLock, release, 8);
FLUTTER_VELTRA_AT(FlutterVeltraResourcesLock, lock_data, 16);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraResourcesLock) == 24);

FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetEglConfig, 8);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetEglDisplay, 16);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetNativeDisplay, 24);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetEglGetProcAddress, 32);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetEglContext, 40);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetEglOffscreenContext, 48);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetDevicePixelRatio, 56);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetWindowVisibility, 64);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetWindowMode, 72);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetWindowType, 80);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetWindowWidth, 88);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetWindowHeight, 96);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetWindowOrientation, 104);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetDeviceOrientation, 112);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetStatusBarVisibility, 120);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, SetStatusBarVisibility, 128);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetKeyboardVisibility, 136);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetBackgroundVisibility, 144);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, SetBackgroundVisibility, 152);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, LockResources, 160);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetTheme, 168);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, GetWindowPayload, 176);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, MaximizeWindow, 184);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, MinimizeWindow, 192);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, Fullscreen, 200);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, Activate, 208);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, CreatePopupWindow, 216);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, CloseWindow, 224);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, WindowVisibilityChangedSubscribe, 232);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, WindowVisibilityChangedUnsubscribe, 240);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, WindowOrientationChangedSubscribe, 248);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, WindowOrientationChangedUnsubscribe, 256);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, DeviceOrientationChangedSubscribe, 264);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, DeviceOrientationChangedUnsubscribe, 272);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, KeyboardVisibilityChangedSubscribe, 280);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, KeyboardVisibilityChangedUnsubscribe, 288);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, ThemeChangedSubscribe, 296);
FLUTTER_VELTRA_AT(FlutterVeltraViewProcTable, ThemeChangedUnsubscribe, 304);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraViewProcTable) == 312);

#endif /* FLUTTER_VELTRA_VIEW_H */
