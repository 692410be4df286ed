// The kernel's answer about its neighbours: what it may be made of, and what is read from the real one.

#include "common/network/NeighbourTable.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <runtime/Scheduler.h>

#include <string>
#include <vector>

#include "common/network/NetworkUtilities.h"

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

std::string attribute(std::uint16_t type, std::string value) {
  const rtattr header{static_cast<unsigned short>(sizeof(rtattr) + value.size()), type};
  value.resize(RTA_ALIGN(value.size()));
  return bytesOf(header) + value;
}

/// An entry for 10.1.1.1 and a hardware address.
std::string neighbour(const std::string& address, std::uint16_t state = NUD_REACHABLE, std::uint8_t family = AF_INET) {
  ndmsg entry{};
  entry.ndm_family = family;
  entry.ndm_state = state;
  return message(RTM_NEWNEIGH, bytesOf(entry) + attribute(NDA_DST, "\12\1\1\1") + attribute(NDA_DST, "short") +
                                   attribute(NDA_LLADDR, address) + attribute(NDA_PROBES, "many"));
}

TEST(NeighbourTableTest, MessagesAreReadUntilTheEndAndBrokenOnesEndTheAnswer) {
  const std::string six = "\1\2\3\4\5\6", good = neighbour(six), done = message(NLMSG_DONE, bytesOf(0)),
                    interrupted = bytesOf(nlmsghdr{sizeof(nlmsghdr), NLMSG_NOOP, NLM_F_DUMP_INTR, Sequence, 0});
  const struct {
    const char* what;
    std::string datagram;
    State state;
    std::size_t neighbours;
  } cases[] = {
      {"one part of several", good + good, State::Expected, 2},
      {"the last part", good + done + good, State::Complete, 1},
      {"an interruption", interrupted + good, State::Expected, 1},
      {"a short address", neighbour("\1\2\3\4\5"), State::Expected, 0},
      {"a multicast group", neighbour(six, NUD_NOARP), State::Expected, 0},
      {"IPv6", neighbour(six, NUD_REACHABLE, AF_INET6), State::Expected, 0},
      {"another's answer", message(NLMSG_ERROR, bytesOf(-1), Sequence - 1) + good, State::Expected, 1},
      {"an error of 0", message(NLMSG_ERROR, bytesOf(0)) + good, State::Expected, 1},
      {"an overrun", message(NLMSG_OVERRUN, "") + good, State::Failed, 0},
      {"another kind", message(RTM_DELNEIGH, good), State::Expected, 0},
      {"half an entry", message(RTM_NEWNEIGH, "half"), State::Failed, 0},
      {"an error", good + message(NLMSG_ERROR, bytesOf(-EPERM)) + good, State::Failed, 1},
      {"an end in error", message(NLMSG_DONE, bytesOf(-EINTR)), State::Failed, 0},
      {"half a message", good + good.substr(0, good.size() - 4), State::Failed, 1},
      {"a length of 0", std::string(sizeof(nlmsghdr), '\0'), State::Failed, 0},
      {"half an attribute", message(RTM_NEWNEIGH, bytesOf(ndmsg{}) + bytesOf(rtattr{200, NDA_DST})), State::Failed, 0},
      {"an attribute of length 0", message(RTM_NEWNEIGH, bytesOf(ndmsg{}) + std::string(4, 0)), State::Failed, 0}};
  for (const auto& each : cases) {
    // A copy of exactly its size, so that a sanitizer sees every step beyond it.
    const std::vector<char> copy(each.datagram.begin(), each.datagram.end());
    CSDK::NeighbourAnswer answer;
    CSDK::addDatagram(std::as_bytes(std::span(copy)), Sequence, answer);
    EXPECT_EQ(answer.state, each.state) << each.what;
    EXPECT_EQ(answer.neighbours.size(), each.neighbours) << each.what;
    EXPECT_EQ(answer.isInterrupted, each.datagram.starts_with(interrupted));
    for (const CSDK::Neighbour& found : answer.neighbours)
      EXPECT_EQ(CSDK::hardwareAddressIn({&found, 1}, "10.1.1.1"), "1:2:3:4:5:6") << each.what;
  }
}

TEST(NeighbourTableTest, AnAddressIsFoundInItAndThatOfAnyoneIsTheFirst) {
  const auto at = [](const char* address, std::uint8_t last) {
    return CSDK::Neighbour{inet_addr(address), {0, 0x1b, 0x21, 0x0a, 0xff, last}};
  };
  const std::vector<CSDK::Neighbour> table = {at("10.1.1.1", 1), at("10.1.1.2", 2), at("10.1.1.2", 3)};
  EXPECT_EQ(CSDK::hardwareAddressIn(table, "10.1.1.2"), "0:1b:21:a:ff:2");
  EXPECT_EQ(CSDK::hardwareAddressIn(table, "0.0.0.0"), "0:1b:21:a:ff:1");
  for (const char* none : {"10.1.1.3", "camera", "255.255.255.255", ""}) {
    EXPECT_EQ(CSDK::hardwareAddressIn(table, none), "") << none;
  }
}

/// By which every wait is over before it begins.
class HastyClock final : public runtime::Scheduler {
 public:
  HastyClock() { install(this); }
  ~HastyClock() override { install(nullptr); }
  runtime::Nanoseconds now() override { return _now += 3600 * runtime::NanosecondsPerSecond; }
  void sleepUntil(runtime::Nanoseconds) override {}
  std::unique_ptr<runtime::Lane> makeLane(std::string_view, runtime::LaneClient&) override { return nullptr; }
  bool wait(runtime::Event&, runtime::Nanoseconds) override { return false; }
  bool isMainThread() override { return true; }

 private:
  runtime::Nanoseconds _now = 0;
};

TEST(NeighbourTableTest, TheSystemsTableIsReadAndATextBeforeStaysWhereNothingIsFound) {
  const auto table = CSDK::readNeighbourTable();
  ASSERT_TRUE(table.has_value());
  std::string text;
  EXPECT_FALSE(CSDK::ipAddressToMacAdress("127.0.0.1", text));
  EXPECT_EQ(CSDK::ipAddressToMacAdress("0.0.0.0", text), !table->empty());
  EXPECT_EQ(text, CSDK::hardwareAddressIn(*table, "0.0.0.0"));
  EXPECT_EQ(CSDK::getMacAddress("rtsp://0.0.0.0/live"), text);
  text = "2:0:0:0:0:ff";
  for (const std::string& address : {std::string("127.0.0.1"), std::string("0.0.0.0\0.1", 9)})
    EXPECT_TRUE(CSDK::ipAddressToMacAdress(address, text) && text == "2:0:0:0:0:ff");
  EXPECT_EQ(CSDK::getMacAddress("rtsp://127.0.0.1/live") + CSDK::getMacAddress("127.0.0.1"), "");

  const HastyClock clock;
  EXPECT_FALSE(CSDK::readNeighbourTable().has_value());
  EXPECT_FALSE(CSDK::ipAddressToMacAdress("0.0.0.0", text));
}

}  // namespace
