// The kernel's answer about its neighbours: what it may be made of, and what is read from the real one.

#include "common/NeighbourTable.h"

#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <string>

#include "common/NetworkUtilities.h"
#include "support/NetworkNamespace.h"

namespace {

using State = CSDK::NeighbourAnswer::State;
constexpr std::uint32_t Sequence = 7;

template <typename Header>
std::string bytesOf(const Header& header) {
  return {reinterpret_cast<const char*>(&header), sizeof header};
}

std::string message(std::uint16_t type, const std::string& payload, std::uint32_t sequence = Sequence) {
  const auto length = static_cast<std::uint32_t>(sizeof(nlmsghdr) + payload.size());
  return bytesOf(nlmsghdr{length, type, NLM_F_MULTI, sequence, 0}) + payload;
}

/// An entry for 10.1.1.1 and a hardware address, which is filled up to the kernel's alignment.
std::string neighbour(std::string address, std::uint16_t state = NUD_REACHABLE, std::uint8_t family = AF_INET) {
  const rtattr header{static_cast<unsigned short>(sizeof(rtattr) + address.size()), NDA_LLADDR};
  address.resize(RTA_ALIGN(address.size()));
  ndmsg entry{};
  entry.ndm_family = family;
  entry.ndm_state = state;
  return message(RTM_NEWNEIGH, bytesOf(entry) + bytesOf(rtattr{8, NDA_DST}) + "\12\1\1\1" + bytesOf(header) + address);
}

TEST(NeighbourTableTest, MessagesAreReadUntilTheEndAndBrokenOnesEndTheAnswer) {
  const std::string six = "\1\2\3\4\5\6", good = neighbour(six), done = message(NLMSG_DONE, bytesOf(0));
  const struct {
    const char* what;
    std::string datagram;
    State state;
    std::size_t neighbours;
  } cases[] = {
      {"one part of several", good + good, State::Expected, 2},
      {"the last part", good + done + good, State::Complete, 1},
      {"an InfiniBand address", neighbour(std::string(20, 'x')), State::Expected, 1},
      {"a short address", neighbour("\1\2\3\4\5"), State::Expected, 0},
      {"a multicast group", neighbour(six, NUD_NOARP), State::Expected, 0},
      {"IPv6", neighbour(six, NUD_REACHABLE, AF_INET6), State::Expected, 0},
      {"another's answer", message(NLMSG_ERROR, bytesOf(-1), Sequence - 1) + good, State::Expected, 1},
      {"a confirmation", message(NLMSG_ERROR, bytesOf(0)) + good, State::Expected, 1},
      {"an error", good + message(NLMSG_ERROR, bytesOf(-EPERM)) + good, State::Failed, 1},
      {"an end in error", message(NLMSG_DONE, bytesOf(-EINTR)), State::Failed, 0},
      {"half a header", good + done.substr(0, 8), State::Failed, 1},
      {"half a message", good + good.substr(0, good.size() - 4), State::Failed, 1},
      {"a length of 0", std::string(sizeof(nlmsghdr), '\0'), State::Failed, 0},
      {"half an entry", message(RTM_NEWNEIGH, "1234"), State::Failed, 0},
      {"half an attribute", message(RTM_NEWNEIGH, bytesOf(ndmsg{}) + bytesOf(rtattr{200, NDA_DST})), State::Failed, 0},
      {"an attribute of length 0", message(RTM_NEWNEIGH, bytesOf(ndmsg{}) + std::string(4, 0)), State::Failed, 0}};
  for (const auto& each : cases) {
    // A copy of exactly its size, so that a sanitizer sees every step beyond it.
    const std::vector<char> copy(each.datagram.begin(), each.datagram.end());
    CSDK::NeighbourAnswer answer;
    CSDK::addDatagram(std::as_bytes(std::span(copy)), Sequence, answer);
    EXPECT_EQ(answer.state, each.state) << each.what;
    EXPECT_EQ(answer.neighbours.size(), each.neighbours) << each.what;
  }
}

TEST(NeighbourTableTest, HardwareAddressesAreFoundInTheSystemsTable) {
  const auto body = [] {
    if (!addLink("cam", "10.77.0.1/16") || !addNeighbour("cam", "10.77.0.2", "00:1b:21:0a:0b:0c")) return;
    // More than one datagram holds.
    for (int other = 0; other < 1000; ++other) {
      const std::string host = std::to_string(other / 250 + 1) + "." + std::to_string(other % 250 + 1);
      ASSERT_TRUE(addNeighbour("cam", "10.77." + host, "02:00:00:00:00:ff"));
    }
    std::string text;
    EXPECT_FALSE(CSDK::ipAddressToMacAdress("10.77.0.3", text) || CSDK::ipAddressToMacAdress("camera", text));
    EXPECT_TRUE(CSDK::ipAddressToMacAdress("0.0.0.0", text)) << "that of anyone";
    EXPECT_TRUE(CSDK::ipAddressToMacAdress("10.77.4.250", text) && text == "2:0:0:0:0:ff") << text;
    EXPECT_TRUE(CSDK::ipAddressToMacAdress("10.77.0.3", text) && text == "2:0:0:0:0:ff") << "the text before stays";
    EXPECT_EQ(CSDK::getMacAddress("rtsp://camera.test/live"), "0:1b:21:a:b:c");
    EXPECT_EQ(CSDK::getMacAddress("rtsp://10.77.0.3/live") + CSDK::getMacAddress("10.77.0.2"), "");
  };

  RUN_IN_NETWORK_NAMESPACE(body, "10.77.0.9 camera.test\n10.77.0.2 camera.test\n");
}

}  // namespace
