#include "common/network/CameraHandshake.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <string_view>
#include <vector>

#include "support/LoopbackPeer.h"

namespace {

using Peer = LoopbackPeer;
using namespace std::string_view_literals;

struct Camera {
  const char* behaviour;
  bool isAccepted;
  std::vector<std::string_view> answer;  ///< To the greeting, in pieces, each after a pause but the first.
  bool hangsUp = false;                  ///< After its answer, rather than when the caller does.
  Peer::Manner manner = Peer::Answers;
};

const Camera Cameras[] = {
    {"answers late and in pieces", true, {"", "O", "K"}},   {"says more than it has to", true, {"OKAY"}},
    {"answers and hangs up", true, {"OK"}, true},           {"answers in lower case", false, {"ok"}},
    {"ends its answer with a zero byte", false, {"O\0"sv}}, {"says one letter and hangs up", false, {"O"}, true},
    {"says one letter and no more", false, {"O"}},          {"does not react at all", false, {}, true, Peer::IsSilent},
};

void shakeHands(const Camera& camera, const std::string& address) {
  const std::string_view greeting = "MERIDIANLINKOPENS";
  std::string heard;
  const auto script = [&](int caller) {
    heard = Peer::hear(caller, greeting.size());
    for (const std::string_view& piece : camera.answer) {
      if (&piece != camera.answer.data()) Peer::dawdle(caller, 200);
      Peer::say(caller, piece);
    }
    if (!camera.hangsUp) heard += Peer::hear(caller);
  };
  {
    const Peer peer(camera.manner, script, address.c_str(), 554);
    EXPECT_FALSE(CSDK::Perform_BrevantaCam_HandShaking(address + std::string("\0.example", 9)));
    EXPECT_EQ(CSDK::Perform_BrevantaCam_HandShaking(address), camera.isAccepted) << camera.behaviour;
  }
  EXPECT_EQ(heard, camera.manner == Peer::Answers ? greeting : "") << "by a camera that " << camera.behaviour;
}

TEST(CameraHandshakeTest, OnlyACameraThatAnswersOKInTimeIsAccepted) {
  if (!Peer(Peer::Refuses, {}, "127.0.0.1", 554).isBound()) GTEST_SKIP() << "port 554 is not for this user";
  // All at once: some of them take the whole time that they are given.
  std::vector<std::future<void>> callers;
  for (const Camera& camera : Cameras) {
    const std::string address = "127.0.0." + std::to_string(callers.size() + 1);
    callers.push_back(std::async(std::launch::async, shakeHands, std::cref(camera), address));
  }
}

}  // namespace
