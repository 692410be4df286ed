#include "common/CameraHandshake.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <string_view>
#include <vector>

#include "support/LoopbackPeer.h"
#include "support/NetworkNamespace.h"

namespace {

using Peer = LoopbackPeer;
using namespace std::string_view_literals;

struct Camera {
  const char* behaviour;
  bool isAccepted;
  std::vector<std::string_view> answer;  ///< In pieces, each after a pause but the first.
  bool hangsUp = false;                  ///< After its answer, rather than when the caller does.
  /// What it waits for before it answers, and all that it is to hear.
  std::string_view greeting = "MERIDIANLINKOPENS";
  Peer::Manner manner = Peer::Answers;
  std::string_view nameSuffix = {};
};

const Camera Cameras[] = {
    {"answers at once", true, {"OK"}},
    {"answers late", true, {"", "OK"}},
    {"answers in pieces", true, {"O", "K"}},
    {"says more than it has to", true, {"OKAY"}},
    {"answers and hangs up", true, {"OK"}, true},
    {"answers in lower case", false, {"ok"}},
    {"answers the wrong way round", false, {"K", "O"}},
    {"ends its answer with a zero byte", false, {"O\0"sv}},
    {"says one letter and hangs up", false, {"O"}, true},
    {"says one letter and no more", false, {"O"}},
    {"hears the greeting and hangs up", false, {}, true},
    {"hears the greeting and says nothing", false, {}},
    {"hangs up without reading", false, {}, true, ""},
    {"refuses the connection", false, {}, true, "", Peer::Refuses},
    {"does not react at all", false, {}, true, "", Peer::IsSilent},
    {"is called by another name", false, {"OK"}, true, "", Peer::Answers, "\0.example"sv},
};

void shakeHands(const Camera& camera, const std::string& address) {
  std::string heard;
  const auto script = [&](int caller) {
    heard = Peer::hear(caller, camera.greeting.size());
    for (const std::string_view& piece : camera.answer) {
      if (&piece != camera.answer.data()) Peer::dawdle(caller, 200);
      Peer::say(caller, piece);
    }
    if (!camera.hangsUp) heard += Peer::hear(caller);
  };
  {
    const Peer peer(camera.manner, script, address.c_str(), 554);
    EXPECT_EQ(CSDK::Perform_BrevantaCam_HandShaking(address + std::string(camera.nameSuffix)), camera.isAccepted)
        << "a camera that " << camera.behaviour;
  }
  EXPECT_EQ(heard, camera.greeting) << "by a camera that " << camera.behaviour;
}

TEST(CameraHandshakeTest, OnlyACameraThatAnswersOKInTimeIsAccepted) {
  RUN_IN_NETWORK_NAMESPACE([] {
    // All at once: some of them take the whole time that they are given.
    std::vector<std::future<void>> callers;
    for (const Camera& camera : Cameras) {
      const std::string address = "127.0.0." + std::to_string(callers.size() + 1);
      callers.push_back(std::async(std::launch::async, shakeHands, std::cref(camera), address));
    }
    for (auto& caller : callers) caller.get();
  });
}

}  // namespace
