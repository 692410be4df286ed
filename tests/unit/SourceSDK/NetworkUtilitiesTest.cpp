// Names and reachability, with real sockets on the loopback and in networks made for the purpose.

#include "common/NetworkUtilities.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include "support/LoopbackPeer.h"
#include "support/NetworkNamespace.h"
#include "support/OpenDescriptors.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Longer than any test may last: a wait that does not end early fails.
constexpr std::int32_t VeryLong = 2'147'483'647;

std::int16_t portOf(const LoopbackPeer& peer) {
  return static_cast<std::int16_t>(peer.port());
}

TEST(ReachabilityTest, AListenerIsFoundAndARefusalEndsTheWait) {
  const LoopbackPeer listener(LoopbackPeer::Answers, [](int) {}), other(LoopbackPeer::Refuses);
  EXPECT_TRUE(CSDK::isAddressReachable("127.0.0.1", portOf(listener), VeryLong));
  const std::ptrdiff_t descriptorsBefore = test::openDescriptors();
  EXPECT_FALSE(CSDK::isAddressReachable("127.0.0.1", portOf(other), VeryLong));
  EXPECT_TRUE(CSDK::isURLReachable("rtsp://127.0.0.1:1/live", portOf(listener), VeryLong));
  EXPECT_FALSE(CSDK::isURLReachable("127.0.0.1", portOf(listener), VeryLong));
  EXPECT_FALSE(CSDK::isAddressReachable("127.0.0.1", portOf(listener), -1));
  for (const std::string& address :
       {std::string("camera"), std::string("255.255.255.255"), std::string("127.0.0.1\0.2", 12)}) {
    EXPECT_FALSE(CSDK::isAddressReachable(address, portOf(listener), VeryLong)) << address;
  }
  EXPECT_LE(test::openDescriptors(), descriptorsBefore) << "descriptors are left open";
}

TEST(ReachabilityTest, SilenceLastsForTheTimeoutDespiteSignalsAndThenTheNextAddressIsTried) {
  const auto body = [] {
    const std::string silent = addSilentAddress();
    ASSERT_EQ(silent, "10.99.0.2");
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const LoopbackPeer listener(LoopbackPeer::Answers, [](int) {});
    const std::jthread disturbance([waiting = pthread_self()](std::stop_token isOver) {
      for (; !isOver.stop_requested(); std::this_thread::yield()) pthread_kill(waiting, SIGUSR1);
    });
    const auto start = Clock::now();

    EXPECT_FALSE(CSDK::isAddressReachable(silent, 554, 1));
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(1));
    EXPECT_TRUE(CSDK::isHostReachable("camera.test", portOf(listener), 1));
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(CSDK::isHostReachable("unknown.test", portOf(listener), 1));
    // Nobody has a route there, which the system says at once.
    EXPECT_FALSE(CSDK::isAddressReachable("203.0.113.1", 554, VeryLong));
  };

  RUN_IN_NETWORK_NAMESPACE(body, "10.99.0.2 camera.test\n127.0.0.1 camera.test\n");
}

TEST(ResolverTest, NamesAreLookedUpAndTheirAddressesCompared) {
  const auto body = [] {
    EXPECT_TRUE(CSDK::compareIPAddress("rtsp://two.test:554/a", "http://reversed.test/b"));
    EXPECT_TRUE(CSDK::compareIPAddress("rtsp://one.test", "rtsp://10.0.0.1"));
    const char* const different[][2] = {{"rtsp://two.test", "rtsp://one.test"},
                                        {"rtsp://one.test", "rtsp://two.test"},
                                        {"rtsp://two.test", "rtsp://half.test"},
                                        {"rtsp://one.test", "10.0.0.1"},
                                        {"rtsp://unknown.test", "rtsp://unknown.test"}};
    for (const auto& [a, b] : different) EXPECT_FALSE(CSDK::compareIPAddress(a, b)) << a << b;

    std::string* addresses = nullptr;
    std::uint32_t count = 0;
    ASSERT_TRUE(CSDK::resolveHostName("reversed.test", &addresses, count));
    EXPECT_EQ(std::vector(addresses, addresses + count), (std::vector<std::string>{"10.0.0.2", "10.0.0.1"}));
    CSDK::freeResolvedIP_Addresses(addresses);
    // More than the first attempt has room for.
    ASSERT_TRUE(CSDK::getIPAddresses("rtsp://many.test", &addresses, count));
    EXPECT_EQ(count, 250U);
    EXPECT_EQ(addresses[249], "10.0.1.250");
    CSDK::freeResolvedIP_Addresses(addresses);

    for (const std::uint32_t before : {0U, 7U}) {
      count = before;
      EXPECT_EQ(CSDK::resolveHostName("unknown.test", &addresses, count), before != 0);
      EXPECT_EQ(CSDK::resolveHostName(std::string("one.test\0.x", 11), &addresses, count), before != 0);
      EXPECT_FALSE(CSDK::resolveHostName("one.test", nullptr, count));
      EXPECT_EQ(count, before);
      EXPECT_EQ(addresses, nullptr);
    }
  };
  std::string hosts =
      "10.0.0.1 two.test one.test half.test\n10.0.0.2 two.test reversed.test\n10.0.0.1 reversed.test\n"
      "10.0.0.3 half.test\n";
  for (int last = 1; last <= 250; ++last) hosts += "10.0.1." + std::to_string(last) + " many.test\n";

  RUN_IN_NETWORK_NAMESPACE(body, hosts);
}

TEST(FormatTest, TextReplacesTheStringItMayBeMadeFrom) {
  std::string text = "rtsp";
  EXPECT_EQ(CSDK::sprintf(&text, "%s://%s:%d", text.c_str(), "cam", 554), text.c_str());
  EXPECT_EQ(text, "rtsp://cam:554");
  EXPECT_STREQ(CSDK::sprintf(&text, "%ls", L"\u20AC"), "") << "no such character in the C locale";
  EXPECT_EQ(CSDK::sprintf(nullptr, "%d", 1), nullptr);
}

}  // namespace
