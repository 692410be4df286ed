// What may pretend to be the kernel's answer about its neighbours, in one datagram or several.

#include "FuzzInput.h"
#include "common/NeighbourTable.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CSDK::NeighbourAnswer answer;
  for (fuzz::Input input(data, size); input.isLeft();) {
    // Copies of exactly their size, so that a step beyond one is noticed.
    const std::size_t length = input.ConsumeBool() ? input.remaining_bytes() : input.ConsumeIntegral<std::uint8_t>();
    const auto datagram = input.ConsumeBytes<std::uint8_t>(length);
    CSDK::addDatagram(std::as_bytes(std::span(datagram)), 7, answer);
  }
  // An entry stands in more bytes than it is taken to.
  fuzz::require(answer.neighbours.size() <= size / 28);
  return 0;
}
