#pragma once

// Fixture of tests that drive the module with a server and devices of their own, and what a host sees of them.

#include <Hardware.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <set>

#include "Camera.h"
#include "Microphone.h"
#include "Server.h"
#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"

namespace test::pipewire {

/// How often a test repeats what more often finds more: a number of the environment's, for long runs.
inline int timesOf(const char* variable, int otherwise) {
  const char* const value = std::getenv(variable);
  return value ? std::atoi(value) : otherwise;
}

/// The server, connected to and without devices before anything is counted.
class WithServer {
 protected:
  WithServer() {
    const auto provider = hardware::systemProvider();
    EXPECT_TRUE(until([&] { return provider->canListDevices() && provider->devices().empty(); }));
  }
  Server& server = Server::instance();
};

/// What the command-line host prints on standard output and standard error, given these arguments.
std::string outputOfHost(const std::string& arguments);

inline constexpr Picture webcamPicture{MotionJPEG, 1920, 1080};

/// What a session manager makes of the preloaded webcam.
inline Properties webcam(const std::string& name) {
  return {{"factory.name", "api.v4l2.source"},      {"api.v4l2.path", "/dev/webcam"},
          {PW_KEY_OBJECT_PATH, "v4l2:/dev/webcam"}, {PW_KEY_MEDIA_CLASS, "Video/Source"},
          {PW_KEY_NODE_NAME, "v4l2_input." + name}, {PW_KEY_NODE_DESCRIPTION, name + " (V4L2)"}};
}

class PipeWireTest : protected WithServer, public FrameworkTest {
 protected:
  /// Waits until the host's sources are these, in any order.
  static bool hasSources(const Host& host, const std::set<std::string>& names) {
    const auto has = [&] {
      const auto sources = host.sources();
      return std::set<std::string>(sources.begin(), sources.end()) == names;
    };
    return until(has, 10) || ((ADD_FAILURE() << testing::PrintToString(host.sources())), false);
  }
};

/// The lowest bits of the number of a picture, and which of these it is; none where it is not, in every pixel, one of
/// them.
std::optional<std::pair<std::uint8_t, std::size_t>> readPicture(const BRV_VideoBuffer& buffer,
                                                                const std::vector<Picture>& pictures);

/// The pictures of a source that a host captures while this exists. Each has to be, in every pixel, one of those that
/// the camera sends.
class VideoTake {
 public:
  struct Frame {
    std::uint64_t number;  ///< as the camera counts, but for what went before the first one
    std::int64_t time;     ///< ns
    std::int64_t arrived;  ///< ns on the monotonic clock
    std::size_t picture;   ///< which of the camera's
    int flags;
  };

  VideoTake(const Host& host, std::string source, std::vector<Picture> pictures = {{}}, std::uint64_t modulus = 256);
  ~VideoTake();

  std::vector<Frame> frames() const;
  std::size_t count() const { return frames().size(); }
  /// Waits for so many more pictures from now on; false when they do not come.
  bool waitForMore(std::size_t count) const;
  /// Pictures that came between the first and the last, but not to the host.
  std::uint64_t missing() const;

 private:
  static void receive(void* context, BRV_VideoBuffer* buffer);

  const Host& _host;
  const std::string _source;
  const std::vector<Picture> _pictures;
  const std::uint64_t _modulus;
  mutable std::mutex _lock;
  std::vector<Frame> _frames;
  std::atomic<bool> _isRight{true};
};

}  // namespace test::pipewire
