#pragma once

// Ways from a camera's thread to a host's callback on another one.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/// Receives the time at which a frame was captured, on the host's side of the line.
using Arrival = void (*)(void* context, std::int64_t captureTime);

class Line {
 public:
  virtual ~Line() = default;

  /// A frame captured at `time`, in nanoseconds. Called on the camera's thread.
  virtual void capture(std::int64_t time) = 0;
};

struct LineKind {
  std::string who;
  std::function<std::unique_ptr<Line>(Arrival arrival, void* context)> make;
};

/// All kinds of line of this program.
inline std::vector<LineKind>& lineKinds() {
  static std::vector<LineKind> all;
  return all;
}

struct LineDefinition {
  explicit LineDefinition(LineKind kind) { lineKinds().push_back(std::move(kind)); }
};

}  // namespace bench
