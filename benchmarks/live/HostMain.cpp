// Captures from a camera through the built module, as a host does that does nothing else. Usage: live_host CAMERA TIMES
// FRAMES.

#include <BRV_AVCapture.h>
#include <CoreFoundation/CFRunLoop.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <dlfcn.h>

#include <string>

#include "../Clocks.h"
#include "Take.h"

namespace {

void ignoreLine(void*, int, const char*, ...) {}

void receive(void* take, BRV_VideoBuffer* buffer) {
  const std::int64_t arrival = bench::now();
  auto* const pixels = static_cast<CVPixelBufferRef>(buffer->data);
  CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
  static_cast<bench::Take*>(take)->frame(static_cast<const std::uint8_t*>(CVPixelBufferGetBaseAddress(pixels)),
                                         static_cast<std::size_t>(buffer->rowBytes), arrival);
  CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  void* const module = dlopen(AVC_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  if (!module) return 1;
  const auto call = [module](auto* type, const char* name, auto... arguments) {
    return reinterpret_cast<decltype(type)>(dlsym(module, name))(arguments...);
  };
#define CALL(name, ...) call(static_cast<name##_Function>(nullptr), #name __VA_OPT__(, ) __VA_ARGS__)
  bench::Take take(argv + 2);
  CALL(BRV_IntitializeLibrary);
  CALL(BRV_RegisterLogCallback, nullptr, BRV_LogCallback{ignoreLine}, static_cast<void*>(&take));
  const std::string source = std::string(argv[1]) + " Video";
  CALL(BRV_RegisterVideoDataArrivedCallback, nullptr, source.c_str(), BRV_VideoDataArrivedCallback{receive},
       static_cast<void*>(&take));
  while (!take.isDone()) CFRunLoopRunInMode(kCFRunLoopDefaultMode, 1, false);
  take.print(argv[1]);
  CALL(BRV_UninitializeLibrary);
}
