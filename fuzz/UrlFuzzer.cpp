// Addresses of network cameras: getURLString keeps what it promises, whatever the text.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/NetworkUtilities.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string url(reinterpret_cast<const char*>(data), size);
  std::string scheme, host, path, user, password;
  std::int32_t port = -2;
  const bool isTaken = CSDK::getURLString(url, &scheme, &host, &path, &port, &user, &password);

  const bool isUntouched = scheme.empty() && host.empty() && path.empty() && user.empty() && password.empty();
  const bool isSound =
      isTaken ? !host.empty() && port >= -1 && port <= 65535 && path.size() <= url.size() : isUntouched && port == -2;
  if (!isSound || isTaken != CSDK::getURLString(url)) std::abort();
  return 0;
}
