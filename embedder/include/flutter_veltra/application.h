/* The application: tasks on the platform thread, permissions, paths, arguments. Conventions:
   base.h. */
#ifndef FLUTTER_VELTRA_APPLICATION_H
#define FLUTTER_VELTRA_APPLICATION_H

#include <flutter_veltra/base.h>

/* The facts that GetApplicationInfo can be asked for. */
typedef enum FlutterVeltraInfoType {
  FLUTTER_VELTRA_INFO_ID = 1,           /* the application's identifier: "org.example.notes" */
  FLUTTER_VELTRA_INFO_NAME = 2,         /* the name that people see */
  FLUTTER_VELTRA_INFO_VERSION = 3,      /* the application's version: "1.4.2" */
  FLUTTER_VELTRA_INFO_ORGANIZATION = 4, /* who publishes it */
  FLUTTER_VELTRA_INFO_LOCALE = 5        /* the language that it runs in: "en_GB" */
} FlutterVeltraInfoType;

/* The folders that GetPath knows. */
typedef enum FlutterVeltraDirectoryType {
  FLUTTER_VELTRA_DIRECTORY_ASSETS = 1,    /* what the application was installed with; read only */
  FLUTTER_VELTRA_DIRECTORY_DATA = 2,      /* the application's own files */
  FLUTTER_VELTRA_DIRECTORY_CACHE = 3,     /* files that may vanish between two starts */
  FLUTTER_VELTRA_DIRECTORY_CONFIG = 4,    /* settings */
  FLUTTER_VELTRA_DIRECTORY_TEMPORARY = 5, /* files of one run */
  FLUTTER_VELTRA_DIRECTORY_DOCUMENTS = 6, /* the user's, as the next four */
  FLUTTER_VELTRA_DIRECTORY_DOWNLOADS = 7,
  FLUTTER_VELTRA_DIRECTORY_MUSIC = 8,
  FLUTTER_VELTRA_DIRECTORY_PICTURES = 9,
  FLUTTER_VELTRA_DIRECTORY_VIDEOS = 10
} FlutterVeltraDirectoryType;

/* Filled by an entry; the strings are the embedder's, by convention 3. */
typedef struct FlutterVeltraStringList {
  size_t size;
  const char* const* strings;
  size_t count;
} FlutterVeltraStringList;

typedef struct FlutterVeltraApplicationProcTable {
  size_t size;
  /* Runs the task once on the platform thread: as soon as it is free, for a `param` of 0 in the
     order of the calls, else after `param` milliseconds. A task that the engine's end overtakes is
     released and does not run. [any] */
  void (*EnqueueTask)(_FlutterVeltraEngine* engine, const FlutterVeltraSlot* task,
                      unsigned int param);
  /* Whether the user granted the permission of this name ("Camera"). [platform] */
  bool (*HasPermission)(_FlutterVeltraEngine* engine, const char* name);
  /* [platform] */
  const char* (*GetOSVersion)(_FlutterVeltraEngine* engine);
  /* [platform] */
  const char* (*GetEmbedderVersion)(_FlutterVeltraEngine* engine);
  /* Ends the application's event loop with this exit code, once control returns to it. [platform]
   */
  void (*Exit)(_FlutterVeltraEngine* engine, int exit_code);
  /* Opens the main window of an engine that has none yet: runs the Dart function `entry_point`
     ("main" for null) and hands it `payload`, a value in the standard codec's bytes, which is
     copied. False when there is a main window already. [platform] */
  bool (*CreateMainWindow)(_FlutterVeltraEngine* engine, const char* entry_point,
                           const uint8_t* payload, size_t payload_size);
  /* `type` is a FlutterVeltraInfoType. [platform] */
  const char* (*GetApplicationInfo)(_FlutterVeltraEngine* engine, int32_t type);
  /* `type` is a FlutterVeltraDirectoryType; an absolute path. [platform] */
  const char* (*GetPath)(_FlutterVeltraEngine* engine, int32_t type);
  /* The path that the application's library of this file name has; for an empty name, the folder
     that its libraries are in. Null when there is no such library. [platform] */
  const char* (*GetLibraryPath)(_FlutterVeltraEngine* engine, const char* name);
  /* The arguments that Dart's entry point is called with. False, with nothing filled, for a null
     list. [platform] */
  bool (*GetDartEntryPointArgs)(_FlutterVeltraEngine* engine, FlutterVeltraStringList* list);
} FlutterVeltraApplicationProcTable;

FLUTTER_VELTRA_AT(FlutterVeltraStringList, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraStringList, strings, 8);
FLUTTER_VELTRA_AT(FlutterVeltraStringList, count, 16);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraStringList) == 24);

FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, size, 0);
FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, EnqueueTask, 8);
FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, HasPermission, 16);
FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, GetOSVersion, 24);
FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, GetEmbedderVersion, 32);
FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, Exit, 40);
FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, CreateMainWindow, 48);
FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, GetApplicationInfo, 56);
FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, GetPath, 64);
FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, GetLibraryPath, 72);
FLUTTER_VELTRA_AT(FlutterVeltraApplicationProcTable, GetDartEntryPointArgs, 80);
FLUTTER_VELTRA_ASSERT(sizeof(FlutterVeltraApplicationProcTable) == 88);

#endif /* FLUTTER_VELTRA_APPLICATION_H */
