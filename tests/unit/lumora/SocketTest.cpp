#include <gtest/gtest.h>
#include <lumora/zSocket.h>
#include <netinet/tcp.h>

#include <string>
#include <tuple>

#include "support/LoopbackPeer.h"
#include "support/OpenDescriptors.h"

namespace {

using Peer = LoopbackPeer;

constexpr int Ample = 60'000, Brief = 100;

class SocketTest : public testing::Test {
 protected:
  ~SocketTest() override {
    socket.reset();
    EXPECT_EQ(test::openDescriptors(), _descriptorsBefore) << "descriptors are left";
  }
  int connect(const Peer& peer) { return socket->Connect("127.0.0.1", peer.port(), Ample); }

  const std::ptrdiff_t _descriptorsBefore = test::openDescriptors();
  zSocketHolder socket{zSocket::Factory()};
  unsigned int count = 77;
};

TEST_F(SocketTest, LongMessagesArriveWholeInBothDirectionsOverEitherProtocol) {
  std::string sent(8u << 20, '\0');
  for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 2654435761u >> 24);
  const auto length = static_cast<unsigned int>(sent.size());
  socket->SetRecvTimeout(Ample);

  for (const char* address : {"127.0.0.1", "::1"}) {
    if (socket->Connect(address, 1, Ample) == zSocket::Unreachable) GTEST_SKIP() << "no loopback at " << address;
    const Peer echo(
        Peer::Answers, [&](int caller) { Peer::say(caller, Peer::hear(caller, length)); }, address);
    ASSERT_EQ(socket->Connect(address, echo.port(), Ample), zSocket::Success) << address;
    EXPECT_EQ(socket->Send(sent.data(), length, count, Ample), zSocket::Success);
    EXPECT_EQ(count, length);
    std::string received(length, 'x');
    EXPECT_EQ(socket->Receive(received.data(), length, count), zSocket::Success);
    EXPECT_TRUE(count == length && received == sent);
  }
}

TEST_F(SocketTest, AConnectionThatFailsTellsWhyAndLeavesNone) {
  const Peer refusing(Peer::Refuses), silent(Peer::IsSilent);
  const std::string tooLong(5000, 'h'), unknown(64, 'h');  // A label has at most 63 bytes.
  const char* const local = "127.0.0.1";
  const std::tuple<const char*, unsigned short, int, int> cases[] = {
      {nullptr, 554, Brief, zSocket::InvalidArgument},         {"", 554, Brief, zSocket::InvalidArgument},
      {tooLong.c_str(), 554, Brief, zSocket::InvalidArgument}, {local, 0, Brief, zSocket::InvalidArgument},
      {local, refusing.port(), -1, zSocket::InvalidArgument},  {unknown.c_str(), 554, Brief, zSocket::UnknownHost},
      {local, refusing.port(), Ample, zSocket::Refused},       {local, silent.port(), Brief, zSocket::TimedOut},
      {"255.255.255.255", 554, Ample, zSocket::Unreachable},   {local, silent.port(), 0, zSocket::TimedOut}};
  for (const auto& [host, port, timeout, result] : cases) {
    const Peer before(Peer::Answers, [](int caller) { Peer::hear(caller); });
    EXPECT_EQ(connect(before), zSocket::Success);
    EXPECT_EQ(socket->Connect(host, port, timeout), result) << (host ? host : "null") << " " << port;
    EXPECT_EQ(socket->Send("x", 1, count, Brief), zSocket::NotConnected);
    EXPECT_EQ(socket->Receive(&count, 1, count), zSocket::NotConnected);
  }
}

TEST_F(SocketTest, APeerThatHangsUpIsNoticedByReceivingAndSendingWithoutASignal) {
  const Peer peer(Peer::Answers, [](int caller) { Peer::say(caller, "O"); });
  char answer[2] = {};
  EXPECT_EQ(connect(peer), zSocket::Success);
  EXPECT_EQ(socket->Receive(answer, 2, count), zSocket::Closed);
  EXPECT_TRUE(count == 1 && answer[0] == 'O');

  int result = zSocket::Success;
  while (result == zSocket::Success) result = socket->Send("x", 1, count, Ample);
  EXPECT_EQ(result, zSocket::Closed);
}

TEST_F(SocketTest, ArgumentsAreCheckedAndASettingHoldsForTheConnectionAndLaterOnes) {
  const auto isWithoutDelay = [](const Peer& peer) {
    int value = -1;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
      sockaddr_in other{};
      socklen_t size = sizeof other, valueSize = sizeof value;
      const bool isSocket = ::getpeername(descriptor, reinterpret_cast<sockaddr*>(&other), &size) == 0;
      if (isSocket && ntohs(other.sin_port) == peer.port())
        ::getsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &value, &valueSize);
    }
    return value;
  };
  const Peer first(Peer::Answers, [](int caller) { Peer::hear(caller); }),
      second(Peer::Answers, [](int caller) { Peer::hear(caller); });
  EXPECT_EQ(connect(first), zSocket::Success);
  EXPECT_EQ(isWithoutDelay(first), 0);
  EXPECT_EQ(socket->SetNoDelay(2), zSocket::Success);
  EXPECT_EQ(isWithoutDelay(first), 1);
  EXPECT_EQ(socket->Connect("localhost", second.port(), Ample), zSocket::Success);
  for (const int enabled : {1, 0}) {
    EXPECT_EQ(isWithoutDelay(second), 1);
    EXPECT_EQ(socket->SetNoDelay(enabled), zSocket::Success);
  }
  EXPECT_EQ(isWithoutDelay(second), 0);

  char byte = 'x';
  for (const int refused : {socket->Send(nullptr, 1, count, Ample), socket->Send(&byte, 1, count, -1),
                            socket->Receive(nullptr, 1, count), socket->SetRecvTimeout(-1)}) {
    EXPECT_EQ(refused, zSocket::InvalidArgument);
  }
  for (const int taken : {socket->Send(nullptr, 0, count, 0), socket->Send(&byte, 1, count, 0),
                          socket->Receive(nullptr, 0, count), socket->SetRecvTimeout(0)}) {
    EXPECT_EQ(taken, zSocket::Success);
  }
  EXPECT_EQ(socket->Receive(&byte, 1, count), zSocket::TimedOut);
  EXPECT_EQ(count, 0U);
  socket.reset();
}

}  // namespace
