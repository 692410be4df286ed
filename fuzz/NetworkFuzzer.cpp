// What names a network camera and what finds it: its address, and the kernel's answer about its neighbours.

#include "FuzzInput.h"
#include "common/network/NeighbourTable.h"
#include "common/network/NetworkUtilities.h"

namespace {

void readAddress(const std::string& url) {
  std::string scheme, host, path, user, password;
  std::int32_t port = -2;
  const bool isTaken = CSDK::getURLString(url, &scheme, &host, &path, &port, &user, &password);
  fuzz::require(isTaken == CSDK::getURLString(url));
  fuzz::require(isTaken ? !host.empty() && port >= -1 && port <= 65535 && path.size() <= url.size()
                        : (scheme + host + path + user + password).empty() && port == -2);
}

void readNeighbours(fuzz::Input input) {
  CSDK::NeighbourAnswer answer;
  const std::size_t size = input.remaining_bytes();
  while (input.isLeft()) {
    // Copies of exactly their size, so that a step beyond one is noticed.
    const std::size_t length = input.ConsumeBool() ? input.remaining_bytes() : input.ConsumeIntegral<std::uint8_t>();
    const auto datagram = input.ConsumeBytes<std::uint8_t>(length);
    CSDK::addDatagram(std::as_bytes(std::span(datagram)), 7, answer);
  }
  // An entry stands in more bytes than it is taken to.
  fuzz::require(answer.neighbours.size() <= size / 28);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  readAddress({reinterpret_cast<const char*>(data), size});
  readNeighbours({data, size});
  return 0;
}
