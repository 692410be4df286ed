/*
 * Loads the capture module and finds its entry points, for hosts in C11 and C++:
 *
 *   BRV_Module brv;
 *   if (!BRV_OpenModule(&brv, NULL)) return fprintf(stderr, "%s\n", brv.error), 1;
 *   brv.BRV_IntitializeLibrary();
 *   ...
 *   brv.BRV_UninitializeLibrary();
 *   BRV_CloseModule(&brv);
 *
 * Everything is in this header; where dlopen is not in the C library, link -ldl. It works with the prototypes of
 * BRV_AVCapture.h and without them. A host that wants its own pointers, named like the entry points, writes
 *
 *   #define BRV_NO_PROTOTYPES
 *   #include <BRV_AVCaptureLoader.h>
 *   #define POINTER(name) static name##_Function name;
 *   BRV_FOR_EACH_ENTRY_POINT(POINTER)
 */
#ifndef BRV_AVCAPTURE_LOADER_H
#define BRV_AVCAPTURE_LOADER_H

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "BRV_AVCapture.h"

/* clang-format off */
#define BRV_FOR_EACH_ENTRY_POINT(DO)          \
  DO(BRV_IntitializeLibrary)                  \
  DO(BRV_UninitializeLibrary)                 \
  DO(BRV_RegisterLocalizeStringCallback)      \
  DO(BRV_RegisterPreferenceCallback)          \
  DO(BRV_RegisterLogCallback)                 \
  DO(BRV_RegisterDeviceStateChangedCallback)  \
  DO(BRV_RegisterSourceChangedCallback)       \
  DO(BRV_GetModelInfo)                        \
  DO(BRV_ConnectDevice)                       \
  DO(BRV_DisconnectDevice)                    \
  DO(BRV_GetDeviceState)                      \
  DO(BRV_GetDeviceGroupDisplayName)           \
  DO(BRV_GetDeviceCount)                      \
  DO(BRV_GetDeviceId)                         \
  DO(BRV_GetSourceCount)                      \
  DO(BRV_GetSourceId)                         \
  DO(BRV_GetSourceDisplayName)                \
  DO(BRV_GetSourceState)                      \
  DO(BRV_GetErrorMessage)                     \
  DO(BRV_DeleteString)                        \
  DO(BRV_ShowCustomConfigDialog)              \
  DO(BRV_RegisterVideoDataArrivedCallback)    \
  DO(BRV_RegisterAudioDataArrivedCallback)    \
  DO(BRV_SourceSupportsProperty)              \
  DO(BRV_GetProperty)                         \
  DO(BRV_GetTimescaleTicksPerSec)             \
  DO(BRV_QueryParameterOptions)               \
  DO(BRV_GetSourceSettings)                   \
  DO(BRV_SetSourceSettings)                   \
  DO(BRV_GetValidParameterValues)
/* clang-format on */

/* The loaded module: a pointer for each entry point, under its name, and none of them null. */
typedef struct BRV_Module {
#define BRV_MEMBER(name) name##_Function name;
  BRV_FOR_EACH_ENTRY_POINT(BRV_MEMBER)
#undef BRV_MEMBER
  void* handle;     /* of dlopen; null while no module is open */
  char error[1280]; /* why the last BRV_OpenModule failed; room for the names of all entry points */
} BRV_Module;

/* Unloads the module, or does nothing when none is open. Call BRV_UninitializeLibrary before: closing stops nothing. */
static inline void BRV_CloseModule(BRV_Module* module) {
  if (module->handle) dlclose(module->handle);
  memset(module, 0, sizeof *module);
}

/* The entry point `name`; null, and the name is added to the error, when the module has none. */
static inline void* BRV_FindEntryPoint(BRV_Module* module, const char* name) {
  void* const found = dlsym(module->handle, name);
  const size_t length = strlen(module->error);
  if (!found)
    snprintf(module->error + length, sizeof module->error - length, length ? ", %s" : "the module lacks %s", name);
  return found;
}

/*
 * Opens the module at `path`. Null: at the path in the environment's BRV_MODULE; without that, AVCaptureDevice.so in
 * the folders where the program finds its libraries, since it is installed among them. Returns 1; or 0, with the reason
 * in `error` and everything else null. What `module` held before is overwritten.
 */
static inline int BRV_OpenModule(BRV_Module* module, const char* path) {
  memset(module, 0, sizeof *module);
  if (!path) path = getenv("BRV_MODULE");
  if (!path || !*path) path = "AVCaptureDevice.so";
  module->handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!module->handle) {
    snprintf(module->error, sizeof module->error, "%s", dlerror());
    return 0;
  }
#define BRV_FIND(name)                                     \
  {                                                        \
    void* const found = BRV_FindEntryPoint(module, #name); \
    memcpy(&module->name, &found, sizeof found);           \
  }
  BRV_FOR_EACH_ENTRY_POINT(BRV_FIND)
#undef BRV_FIND
  if (!*module->error) return 1;
  dlclose(module->handle);
  memset(module, 0, offsetof(BRV_Module, error));
  return 0;
}

#endif /* BRV_AVCAPTURE_LOADER_H */
