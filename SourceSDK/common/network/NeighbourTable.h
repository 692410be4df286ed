#pragma once

// The system's table of IPv4 neighbours and their hardware addresses. It is read through a socket of its own, so any
// number of threads may do so at once.

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace CSDK {

struct Neighbour {
  in_addr_t address;  ///< In network byte order.
  /// The first six bytes of the link-layer address.
  std::array<std::uint8_t, 6> hardwareAddress;
};

/// The entries that have a link-layer address of six bytes or more, in the kernel's order. Left out are those without
/// address resolution, whose addresses the kernel makes up, such as multicast groups. Nothing when the kernel refuses,
/// answers with something that makes no sense, or takes a second for an answer. When the table keeps changing while it
/// is read, an entry that changes may be missing or there twice.
///
/// Throws std::bad_alloc.
std::optional<std::vector<Neighbour>> readNeighbourTable();

/// The hardware address of the first entry with an address such as "10.1.1.1", of the first of all with "0.0.0.0", as
/// in "0:1b:21:a:b:c"; empty where there is none, or the text is no address. Throws std::bad_alloc.
std::string hardwareAddressIn(std::span<const Neighbour> table, const std::string& address);

/// What a sequence of datagrams with the kernel's answer to one request has brought so far.
struct NeighbourAnswer {
  enum class State {
    Expected,  ///< There is more to come.
    Complete,
    Failed,  ///< The kernel reported an error, or a message is cut short.
  };

  State state = State::Expected;
  /// The table changed between two datagrams.
  bool isInterrupted = false;
  std::vector<Neighbour> neighbours;
};

/// Adds the messages of one datagram to the answer to request `sequence`; messages of other requests and of other kinds
/// are passed over. Reads nothing but the bytes, whatever they are. Throws std::bad_alloc.
void addDatagram(std::span<const std::byte> datagram, std::uint32_t sequence, NeighbourAnswer& answer);

}  // namespace CSDK
