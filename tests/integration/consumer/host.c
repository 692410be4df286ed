/* A host in C, outside the tree: loads the installed module and receives a frame. What it does not need of the
   installed headers, it includes all the same: they are C11. */

#include <BRV_AVCapture.h>
#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFRunLoop.h>
#include <CoreFoundation/CFString.h>
#include <CoreFoundation/CFURL.h>
#include <CoreMedia/CMSampleBuffer.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <dlfcn.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void* module;

static void ignore_log(void* context, int level, const char* format, ...) {
  (void)context, (void)level, (void)format;
}

static atomic_int frames;

static void on_frame(void* context, BRV_VideoBuffer* buffer) {
  CVPixelBufferRef pixels = buffer->data;
  (void)context;
  if (CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly) == kCVReturnSuccess) {
    if (CVPixelBufferGetBaseAddress(pixels) && CVPixelBufferGetWidth(pixels) == (size_t)buffer->width) ++frames;
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
  }
}

#define ENTRY(name) name##_Function name = (name##_Function)(size_t)dlsym(module, #name)

int main(void) {
  module = dlopen(MODULE, RTLD_NOW);
  if (!module) return fprintf(stderr, "%s\n", dlerror()), 1;
  ENTRY(BRV_IntitializeLibrary);
  ENTRY(BRV_RegisterLogCallback);
  ENTRY(BRV_GetSourceCount);
  ENTRY(BRV_GetSourceId);
  ENTRY(BRV_RegisterVideoDataArrivedCallback);
  ENTRY(BRV_UninitializeLibrary);

  BRV_IntitializeLibrary();
  BRV_RegisterLogCallback(NULL, ignore_log, &frames);
  if (BRV_GetSourceCount() < 1) return 1;
  int length = 0;
  BRV_GetSourceId(NULL, 0, NULL, &length);
  char* id = malloc((size_t)length + 1);
  BRV_GetSourceId(NULL, 0, id, &length);

  BRV_RegisterVideoDataArrivedCallback(NULL, id, on_frame, &frames);
  for (int i = 0; i < 100 && !frames; ++i) CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.1, 0);
  BRV_UninitializeLibrary();
  printf("%s: %d frames\n", id, (int)frames);
  free(id);
  return frames > 0 ? 0 : 1;
}
