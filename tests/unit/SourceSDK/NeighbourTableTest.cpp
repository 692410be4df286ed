// The kernel's answer about its neighbours: what it may be made of, and what is read from the real one.

#include "common/NeighbourTable.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <random>
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

std::string message(int type, const std::string& payload, std::uint32_t sequence = Sequence, int flags = NLM_F_MULTI) {
  std::string bytes =
      bytesOf(nlmsghdr{static_cast<std::uint32_t>(sizeof(nlmsghdr) + payload.size()), static_cast<std::uint16_t>(type),
                       static_cast<std::uint16_t>(flags), sequence, 0});
  bytes += payload;
  return bytes.append(NLMSG_ALIGN(bytes.size()) - bytes.size(), '\0');
}

std::string attribute(int type, const std::string& value) {
  std::string bytes =
      bytesOf(rtattr{static_cast<unsigned short>(sizeof(rtattr) + value.size()), static_cast<unsigned short>(type)});
  bytes += value;
  return bytes.append(RTA_ALIGN(bytes.size()) - bytes.size(), '\0');
}

/// An entry for 10.0.0.`last`.
std::string entry(char last, const std::string& hardwareAddress, int state = NUD_REACHABLE, int family = AF_INET) {
  ndmsg header{};
  header.ndm_family = static_cast<unsigned char>(family);
  header.ndm_state = static_cast<std::uint16_t>(state);
  const std::string address{10, 0, 0, last};
  return bytesOf(header) + attribute(NDA_PROBES, "1234") + attribute(NDA_DST, address) +
         (hardwareAddress.empty() ? "" : attribute(NDA_LLADDR, hardwareAddress));
}

/// Reads a copy of exactly its size, so that a sanitizer sees every step beyond it.
CSDK::NeighbourAnswer answerOf(const std::string& datagram) {
  const std::vector<char> copy(datagram.begin(), datagram.end());
  CSDK::NeighbourAnswer answer;
  CSDK::addDatagram(std::as_bytes(std::span(copy)), Sequence, answer);
  return answer;
}

TEST(NeighbourTableTest, MessagesAreReadUntilTheEndAndBrokenOnesEndTheAnswer) {
  const std::string good = message(RTM_NEWNEIGH, entry(1, "\1\2\3\4\5\6"));
  const std::string done = message(NLMSG_DONE, bytesOf(0));
  const std::string cutAttribute = bytesOf(rtattr{200, NDA_DST});
  struct {
    const char* what;
    std::string datagram;
    State state;
    std::size_t neighbours;
  } const cases[] = {
      {"nothing", "", State::Expected, 0},
      {"one part of several", good + good, State::Expected, 2},
      {"the last part", good + done + good, State::Complete, 1},
      {"an InfiniBand address", message(RTM_NEWNEIGH, entry(1, std::string(20, 'x'))), State::Expected, 1},
      {"no address yet", message(RTM_NEWNEIGH, entry(1, "", NUD_INCOMPLETE)) + done, State::Complete, 0},
      {"a short address", message(RTM_NEWNEIGH, entry(1, "\1\2\3\4\5")) + done, State::Complete, 0},
      {"a multicast group", message(RTM_NEWNEIGH, entry(1, "\1\2\3\4\5\6", NUD_NOARP)) + done, State::Complete, 0},
      {"IPv6", message(RTM_NEWNEIGH, entry(1, "\1\2\3\4\5\6", NUD_REACHABLE, AF_INET6)) + done, State::Complete, 0},
      {"another's answer", message(NLMSG_ERROR, bytesOf(-1), Sequence - 1) + good, State::Expected, 1},
      {"another kind", message(RTM_NEWROUTE, "??") + good, State::Expected, 1},
      {"a confirmation", message(NLMSG_ERROR, bytesOf(0)) + good, State::Expected, 1},
      {"an error", good + message(NLMSG_ERROR, bytesOf(-EPERM)) + good, State::Failed, 1},
      {"an error without a number", message(NLMSG_ERROR, ""), State::Failed, 0},
      {"an end in error", message(NLMSG_DONE, bytesOf(-EINTR)), State::Failed, 0},
      {"lost messages", message(NLMSG_OVERRUN, ""), State::Failed, 0},
      {"half a header", good + done.substr(0, 8), State::Failed, 1},
      {"half a message", good + good.substr(0, good.size() - 4), State::Failed, 1},
      {"a length of 0", std::string(sizeof(nlmsghdr), '\0'), State::Failed, 0},
      {"half an entry", message(RTM_NEWNEIGH, "1234"), State::Failed, 0},
      {"half an attribute", message(RTM_NEWNEIGH, bytesOf(ndmsg{}) + cutAttribute), State::Failed, 0},
      {"an attribute of length 0", message(RTM_NEWNEIGH, bytesOf(ndmsg{}) + std::string(4, 0)), State::Failed, 0},
  };

  for (const auto& each : cases) {
    const auto answer = answerOf(each.datagram);
    EXPECT_EQ(answer.state, each.state) << each.what;
    EXPECT_EQ(answer.neighbours.size(), each.neighbours) << each.what;
    EXPECT_FALSE(answer.isInterrupted) << each.what;
  }
  EXPECT_TRUE(answerOf(message(NLMSG_DONE, bytesOf(0), Sequence, NLM_F_MULTI | NLM_F_DUMP_INTR)).isInterrupted);
}

TEST(NeighbourTableTest, HostileBytesAreSurvived) {
  const std::string good = message(RTM_NEWNEIGH, entry(1, "\1\2\3\4\5\6"), Sequence) +
                           message(RTM_NEWNEIGH, entry(2, "\1\2\3\4\5\6"), Sequence) + message(NLMSG_DONE, bytesOf(0));
  std::mt19937 random(1);

  for (int round = 0; round < 50'000; ++round) {
    std::string bytes = good.substr(0, random() % (good.size() + 1));
    for (auto changes = random() % 4; changes > 0 && !bytes.empty(); --changes) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    ASSERT_LE(answerOf(bytes).neighbours.size(), 2U);
  }
}

TEST(NeighbourTableTest, HardwareAddressesAreFoundInTheSystemsTable) {
  const auto body = [] {
    if (!addLink("cam", "10.77.0.1/16") || !addNeighbour("cam", "10.77.0.2", "00:1b:21:0a:0b:0c")) return;
    // More than one datagram holds.
    constexpr int Others = 1000;
    for (int other = 0; other < Others; ++other) {
      const std::string host = std::to_string(other / 250 + 1) + "." + std::to_string(other % 250 + 1);
      ASSERT_TRUE(addNeighbour("cam", "10.77." + host, "02:00:00:00:00:ff"));
    }
    struct {
      const char *address, *found;
    } const cases[] = {
        {"10.77.0.2", "0:1b:21:a:b:c"}, {"10.77.4.250", "2:0:0:0:0:ff"}, {"10.77.0.3", ""}, {"camera", ""}};
    for (const auto& each : cases) {
      std::string found;
      EXPECT_EQ(CSDK::ipAddressToMacAdress(each.address, found), each.found[0] != '\0') << each.address;
      EXPECT_EQ(found, each.found) << each.address;
    }
    std::string anyone;
    EXPECT_TRUE(CSDK::ipAddressToMacAdress("0.0.0.0", anyone));
    std::string earlier = "earlier";
    EXPECT_TRUE(CSDK::ipAddressToMacAdress("10.77.0.3", earlier));
    EXPECT_EQ(earlier, "earlier");

    EXPECT_EQ(CSDK::getMacAddress("rtsp://camera.test/live"), "0:1b:21:a:b:c");
    EXPECT_EQ(CSDK::getMacAddress("rtsp://10.77.0.3/live"), "");
    EXPECT_EQ(CSDK::getMacAddress("10.77.0.2"), "");
    const auto table = CSDK::readNeighbourTable();
    ASSERT_TRUE(table);
    EXPECT_EQ(table->size(), Others + 1U);
  };

  RUN_IN_NETWORK_NAMESPACE(body, "10.77.0.9 camera.test\n10.77.0.2 camera.test\n");
}

}  // namespace
