// The way into the library, for whoever loads it.

#include <memory>

#include "PipeWire.h"
#include "PipeWireProvider.h"

extern "C" __attribute__((visibility("default"))) void hardware_pipewire_makeProvider(
    std::shared_ptr<hardware::Provider>& provider) {
  provider = std::make_shared<hardware::pipewire::PipeWireProvider>();
}
