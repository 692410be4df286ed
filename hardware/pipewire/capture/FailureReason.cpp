#include "capture/FailureReason.h"

#include <array>
#include <cerrno>
#include <cstring>

namespace hardware::pipewire {
namespace {

struct Reason {
  int error;
  const char* text;
};
constexpr const char* Busy = "it is busy: another program is using it";
constexpr const char* Denied = "there is no permission to use it";
constexpr const char* Gone = "there is no such device any more";
constexpr std::array Reasons{Reason{EBUSY, Busy},
                             Reason{EACCES, Denied},
                             Reason{EPERM, Denied},
                             Reason{ENODEV, Gone},
                             Reason{ENOENT, Gone},
                             Reason{EIO, "it does not work"},
                             Reason{EPIPE, "the PipeWire server has gone"}};

}  // namespace

std::string reasonOf(int result, std::string_view message) {
  for (const Reason& reason : Reasons) {
    const bool isMeant = result == -reason.error || message.find(std::strerror(reason.error)) != std::string_view::npos;
    if (isMeant) return reason.text;
  }
  // The server's V4L2 plug-in says no more when another program has the buffers of a camera.
  if (message.find("buffers") != std::string_view::npos) return Busy;
  return message.empty() ? std::strerror(-result) : "PipeWire: " + std::string(message);
}

}  // namespace hardware::pipewire
