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
constexpr std::array Reasons{Reason{EBUSY, "another program is using it"},
                             Reason{EACCES, "this program is not allowed to use it"},
                             Reason{EPERM, "this program is not allowed to use it"},
                             Reason{ENODEV, "it is no longer connected"},
                             Reason{ENOENT, "it is no longer connected"},
                             Reason{EIO, "it does not work"},
                             Reason{EPIPE, "the PipeWire server has gone"}};

}  // namespace

std::string reasonOf(int result, std::string_view message) {
  for (const Reason& reason : Reasons) {
    const bool isMeant = result == -reason.error || message.find(std::strerror(reason.error)) != std::string_view::npos;
    if (isMeant) return reason.text;
  }
  return message.empty() ? std::strerror(-result) : "PipeWire: " + std::string(message);
}

}  // namespace hardware::pipewire
