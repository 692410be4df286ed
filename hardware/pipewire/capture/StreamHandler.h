#pragma once

// What a capture does with its stream: pictures or sound.

#include <pipewire/pipewire.h>
#include <runtime/Scheduler.h>

#include <vector>

#include "server/Connection.h"
#include "server/Properties.h"

struct spa_pod_builder;

namespace hardware::pipewire {

/// Called on the device's lane, but for the destructor.
class StreamHandler {
 public:
  virtual ~StreamHandler() = default;

  virtual Connection::Use use() const = 0;

  /// How a stream is to be made.
  virtual Properties properties() const = 0;
  virtual pw_stream_flags flags() const = 0;
  /// The formats that it takes, the best first. `builder` owns what is returned.
  virtual std::vector<const spa_pod*> request(spa_pod_builder& builder) const = 0;

  /// Adds a listener to a stream that is about to be connected. Once that has gone, nothing of it is admitted.
  virtual void attach(pw_stream* stream) = 0;

  /// How long a device that works may send nothing; runtime::Never where it sends when it has something.
  virtual runtime::Nanoseconds longestSilence() const = 0;
};

}  // namespace hardware::pipewire
