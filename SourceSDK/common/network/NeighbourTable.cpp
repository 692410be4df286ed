#include "common/network/NeighbourTable.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <runtime/Scheduler.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/network/FileDescriptor.h"

namespace CSDK {

namespace {

using Bytes = std::span<const std::byte>;

/// A header of the kernel's at the start of `bytes`, wherever that lies in memory; nothing when there are too few.
template <typename Header>
std::optional<Header> headerOf(Bytes bytes) noexcept {
  Header header;
  if (bytes.size() < sizeof header) return std::nullopt;
  std::memcpy(&header, bytes.data(), sizeof header);
  return header;
}

/// What follows a message or attribute of `length` bytes, which the next one is aligned to.
Bytes behind(Bytes bytes, std::size_t length) noexcept {
  static_assert(NLMSG_ALIGNTO == RTA_ALIGNTO);
  return bytes.subspan(std::min<std::size_t>(NLMSG_ALIGN(length), bytes.size()));
}

/// False when an attribute is cut short. An entry that is of no use leaves `neighbours` as it is.
bool addNeighbour(Bytes payload, std::vector<Neighbour>& neighbours) {
  const auto message = headerOf<ndmsg>(payload);
  if (!message) return false;

  std::optional<in_addr_t> address;
  Bytes hardwareAddress;
  Bytes attributes = behind(payload, sizeof *message);
  while (const auto attribute = headerOf<rtattr>(attributes)) {
    if (attribute->rta_len < sizeof *attribute || attribute->rta_len > attributes.size()) return false;
    const Bytes value = attributes.subspan(sizeof *attribute, attribute->rta_len - sizeof *attribute);
    if (attribute->rta_type == NDA_DST && value.size() == sizeof(in_addr_t)) address = headerOf<in_addr_t>(value);
    if (attribute->rta_type == NDA_LLADDR) hardwareAddress = value;
    attributes = behind(attributes, attribute->rta_len);
  }

  const bool isMadeUp = (message->ndm_state & NUD_NOARP) != 0;
  if (message->ndm_family != AF_INET || isMadeUp || !address) return true;
  if (const auto sixBytes = headerOf<std::array<std::uint8_t, 6>>(hardwareAddress)) {
    neighbours.push_back({*address, *sixBytes});
  }
  return true;
}

/// Both an error message and the end of an answer carry an error, which is 0 where all is well.
bool isWell(Bytes payload) noexcept {
  return headerOf<int>(payload) == 0;
}

void addMessage(const nlmsghdr& header, Bytes payload, NeighbourAnswer& answer) {
  using State = NeighbourAnswer::State;
  if (header.nlmsg_flags & NLM_F_DUMP_INTR) answer.isInterrupted = true;
  switch (header.nlmsg_type) {
    case NLMSG_DONE:
      answer.state = isWell(payload) ? State::Complete : State::Failed;
      break;
    case NLMSG_ERROR:
      if (!isWell(payload)) answer.state = State::Failed;
      break;
    case NLMSG_OVERRUN:
      answer.state = State::Failed;
      break;
    case RTM_NEWNEIGH:
      if (!addNeighbour(payload, answer.neighbours)) answer.state = State::Failed;
      break;
    default:
      break;
  }
}

constexpr std::uint32_t RequestSequence = 1;

bool sendRequest(const FileDescriptor& socket) noexcept {
  struct {
    nlmsghdr header;
    ndmsg message;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETNEIGH;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = RequestSequence;
  request.message.ndm_family = AF_INET;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  return ::sendto(socket.number(), &request, sizeof request, 0, reinterpret_cast<const sockaddr*>(&kernel),
                  sizeof kernel) == static_cast<ssize_t>(sizeof request);
}

/// The next datagram of the kernel in `buffer`; empty when none comes in time, or one that does not fit.
Bytes receiveDatagram(const FileDescriptor& socket, std::span<std::byte> buffer,
                      runtime::Nanoseconds deadline) noexcept {
  for (;;) {
    const runtime::Nanoseconds remaining = deadline - runtime::Scheduler::current().now();
    pollfd entry{socket.number(), POLLIN, 0};
    if (remaining <= 0 || ::poll(&entry, 1, static_cast<int>(remaining / 1'000'000) + 1) == 0) return {};

    sockaddr_nl sender{};
    socklen_t senderLength = sizeof sender;
    // With MSG_TRUNC the result is the datagram's own length.
    const ssize_t length = ::recvfrom(socket.number(), buffer.data(), buffer.size(), MSG_TRUNC | MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&sender), &senderLength);
    if (length < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (length < 0 || static_cast<std::size_t>(length) > buffer.size()) return {};
    if (sender.nl_pid == 0) return buffer.first(static_cast<std::size_t>(length));
  }
}

NeighbourAnswer askKernel() {
  NeighbourAnswer answer;
  const FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!socket.isOpen() || !sendRequest(socket)) answer.state = NeighbourAnswer::State::Failed;
  const auto deadline = runtime::Scheduler::current().now() + runtime::NanosecondsPerSecond;

  // The kernel puts no more into a datagram of such an answer.
  std::vector<std::byte> buffer(32'768);
  while (answer.state == NeighbourAnswer::State::Expected) {
    const Bytes datagram = receiveDatagram(socket, buffer, deadline);
    if (datagram.empty()) answer.state = NeighbourAnswer::State::Failed;
    addDatagram(datagram, RequestSequence, answer);
  }
  return answer;
}

}  // namespace

void addDatagram(std::span<const std::byte> datagram, std::uint32_t sequence, NeighbourAnswer& answer) {
  while (!datagram.empty() && answer.state == NeighbourAnswer::State::Expected) {
    const auto header = headerOf<nlmsghdr>(datagram);
    if (!header || header->nlmsg_len < sizeof *header || header->nlmsg_len > datagram.size()) {
      answer.state = NeighbourAnswer::State::Failed;
      return;
    }
    const Bytes payload = datagram.subspan(sizeof *header, header->nlmsg_len - sizeof *header);
    if (header->nlmsg_seq == sequence) addMessage(*header, payload, answer);
    datagram = behind(datagram, header->nlmsg_len);
  }
}

std::optional<std::vector<Neighbour>> readNeighbourTable() {
  constexpr int Attempts = 4;
  NeighbourAnswer answer = askKernel();
  for (int attempt = 1; answer.isInterrupted && attempt < Attempts; ++attempt) answer = askKernel();
  if (answer.state != NeighbourAnswer::State::Complete) return std::nullopt;
  return std::move(answer.neighbours);
}

std::string hardwareAddressIn(std::span<const Neighbour> table, const std::string& address) {
  const in_addr_t wanted = ::inet_addr(address.c_str());
  if (wanted == INADDR_NONE) return {};
  const auto found = std::ranges::find_if(
      table, [wanted](const Neighbour& each) { return wanted == INADDR_ANY || wanted == each.address; });
  if (found == table.end()) return {};
  const auto& bytes = found->hardwareAddress;
  char text[32];
  std::snprintf(text, sizeof text, "%x:%x:%x:%x:%x:%x", bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5]);
  return text;
}

}  // namespace CSDK
