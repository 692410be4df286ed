// Names and reachability, with real sockets on the loopback and in networks made for the purpose.

#include "common/NetworkUtilities.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include "support/NetworkNamespace.h"

namespace {

std::ptrdiff_t openDescriptors() {
  using Iterator = std::filesystem::directory_iterator;
  return std::distance(Iterator("/proc/self/fd"), Iterator());
}

/// Listens on a port of the loopback that the system chose.
class Listener {
 public:
  Listener() {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof name;
    auto* const address = reinterpret_cast<sockaddr*>(&name);
    const bool isListening = bind(_socket, address, length) == 0 && listen(_socket, 1) == 0;
    EXPECT_TRUE(isListening && getsockname(_socket, address, &length) == 0);
    port = static_cast<std::int16_t>(ntohs(name.sin_port));
  }
  ~Listener() { close(); }

  void close() {
    if (_socket >= 0) ::close(_socket);
    _socket = -1;
  }

  std::int16_t port;

 private:
  int _socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

class ReachabilityTest : public testing::Test {
 protected:
  ~ReachabilityTest() override { EXPECT_EQ(openDescriptors(), _descriptorsBefore) << "descriptors are left open"; }

  /// Longer than any test may last: a wait that does not end early fails.
  static constexpr std::int32_t VeryLong = 2'147'483'647;

 private:
  const std::ptrdiff_t _descriptorsBefore = openDescriptors();
};

TEST_F(ReachabilityTest, AListenerIsFoundAndARefusalEndsTheWait) {
  Listener listener;

  EXPECT_TRUE(CSDK::isAddressReachable("127.0.0.1", listener.port, VeryLong));
  EXPECT_TRUE(CSDK::isURLReachable("rtsp://127.0.0.1:1/live", listener.port, VeryLong));
  EXPECT_FALSE(CSDK::isURLReachable("127.0.0.1", listener.port, VeryLong));
  EXPECT_FALSE(CSDK::isAddressReachable("127.0.0.1", listener.port, -1));
  for (const std::string address : {"", "camera", "256.0.0.1", "255.255.255.255"}) {
    EXPECT_FALSE(CSDK::isAddressReachable(address, listener.port, VeryLong)) << address;
  }
  EXPECT_FALSE(CSDK::isAddressReachable(std::string("127.0.0.1\0.2", 12), listener.port, VeryLong));

  listener.close();
  EXPECT_FALSE(CSDK::isAddressReachable("127.0.0.1", listener.port, VeryLong));
}

TEST_F(ReachabilityTest, HoldsWithMoreDescriptorsThanASetHasRoomFor) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < FD_SETSIZE + 16) GTEST_SKIP() << "no more than " << limit.rlim_max << " descriptors allowed";
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  Listener listener;
  std::vector<int> descriptors{dup(STDIN_FILENO)};

  while (descriptors.back() >= 0 && descriptors.back() < FD_SETSIZE) descriptors.push_back(dup(STDIN_FILENO));
  EXPECT_GE(descriptors.back(), FD_SETSIZE);
  EXPECT_TRUE(CSDK::isAddressReachable("127.0.0.1", listener.port, VeryLong));

  for (const int descriptor : descriptors) close(descriptor);
}

TEST_F(ReachabilityTest, SilenceLastsForTheTimeoutDespiteSignalsAndThenTheNextAddressIsTried) {
  static std::atomic<int> interruptions;
  const auto body = [] {
    const std::string silent = addSilentAddress();
    ASSERT_EQ(silent, "10.99.0.2");
    struct sigaction action {};
    action.sa_handler = [](int) { ++interruptions; };
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> isOver = false;
    std::thread disturbance([&isOver, waiting = pthread_self()] {
      while (!isOver) {
        pthread_kill(waiting, SIGUSR1);
        std::this_thread::yield();
      }
    });
    Listener listener;
    const auto start = std::chrono::steady_clock::now();

    EXPECT_FALSE(CSDK::isAddressReachable(silent, 554, 1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_TRUE(CSDK::isHostReachable("camera.test", listener.port, 1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(CSDK::isHostReachable("unknown.test", listener.port, 1));
    // Nobody has a route there, which the system says at once.
    EXPECT_FALSE(CSDK::isAddressReachable("203.0.113.1", 554, VeryLong));

    isOver = true;
    disturbance.join();
    EXPECT_GT(interruptions, 0);
  };

  RUN_IN_NETWORK_NAMESPACE(body, "10.99.0.2 camera.test\n127.0.0.1 camera.test\n");
}

TEST(ResolverTest, NamesAreLookedUpAndTheirAddressesCompared) {
  const auto body = [] {
    struct {
      const char *a, *b;
      bool isSame;
    } const cases[] = {
        {"rtsp://two.test:554/a", "http://reversed.test/b", true},
        {"rtsp://two.test", "rtsp://one.test", false},
        {"rtsp://one.test", "rtsp://two.test", false},
        {"rtsp://two.test", "rtsp://half.test", false},
        {"rtsp://one.test", "rtsp://10.0.0.1", true},
        {"rtsp://one.test", "10.0.0.1", false},
        {"rtsp://unknown.test", "rtsp://unknown.test", false},
        {"rtsp://[::1]", "rtsp://[::1]", false},
    };
    for (const auto& each : cases) EXPECT_EQ(CSDK::compareIPAddress(each.a, each.b), each.isSame) << each.a << each.b;

    std::string* addresses = nullptr;
    std::uint32_t count = 0;
    ASSERT_TRUE(CSDK::resolveHostName("reversed.test", &addresses, count));
    EXPECT_EQ(std::vector(addresses, addresses + count), (std::vector<std::string>{"10.0.0.2", "10.0.0.1"}));
    CSDK::freeResolvedIP_Addresses(addresses);
    EXPECT_EQ(addresses, nullptr);
    CSDK::freeResolvedIP_Addresses(addresses);

    // More than the first attempt has room for.
    ASSERT_TRUE(CSDK::getIPAddresses("rtsp://many.test", &addresses, count));
    EXPECT_EQ(count, 250U);
    EXPECT_EQ(addresses[249], "10.0.1.250");
    CSDK::freeResolvedIP_Addresses(addresses);

    for (const std::uint32_t before : {0U, 7U}) {
      count = before;
      for (const std::string& name : {std::string("unknown.test"), std::string(), std::string("one.test\0.x", 11)}) {
        EXPECT_EQ(CSDK::resolveHostName(name, &addresses, count), before != 0) << name;
        EXPECT_EQ(count, before);
        EXPECT_EQ(addresses, nullptr);
      }
      EXPECT_FALSE(CSDK::resolveHostName("one.test", nullptr, count));
      EXPECT_FALSE(CSDK::getIPAddresses("10.0.0.1", &addresses, count));
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
  EXPECT_STREQ(CSDK::sprintf(&text, "%s", std::string(100'000, 'x').c_str()), std::string(100'000, 'x').c_str());
  EXPECT_STREQ(CSDK::sprintf(&text, "%ls", L"\u20AC"), "") << "no such character in the C locale";
  EXPECT_EQ(CSDK::sprintf(nullptr, "%d", 1), nullptr);
}

}  // namespace
