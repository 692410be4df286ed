#include <algorithm>
#include <fstream>
#include <regex>

#include "PipeWireTest.h"

// Pictures, from the camera's memory to the host's callback: their bits, times and losses, whatever formats change.

namespace test::pipewire {
namespace {

class VideoTest : public PipeWireTest {
 protected:
  /// What does not come to the host is a drop, and nothing else is.
  static void expectEveryPictureCounted(const Host& host, const VideoTake& take) {
    const auto drops = [&] {
      auto counts = host.account(host.sources().at(0), "video");
      return static_cast<std::uint64_t>(counts["captured"] - counts["delivered"] - counts["pending"]);
    };
    const std::uint64_t dropped = drops();
    EXPECT_TRUE(take.waitForMore(1));
    EXPECT_LE(dropped, take.missing());
    EXPECT_GE(drops(), take.missing());
  }
};

TEST_F(VideoTest, EveryPackingAndSizeArrives) {
  constexpr std::uint32_t packings[] = {SPA_VIDEO_FORMAT_YUY2,
                                        SPA_VIDEO_FORMAT_UYVY,
                                        SPA_VIDEO_FORMAT_NV12,
                                        SPA_VIDEO_FORMAT_I420,
                                        SPA_VIDEO_FORMAT_YV12,
                                        SPA_VIDEO_FORMAT_NV21,
                                        SPA_VIDEO_FORMAT_RGB,
                                        SPA_VIDEO_FORMAT_BGR,
                                        SPA_VIDEO_FORMAT_BGRx,
                                        SPA_VIDEO_FORMAT_RGBx,
                                        MotionJPEG};
  Host host;
  std::uint32_t width = 318;
  for (const std::uint32_t packing : packings) {
    const Picture picture{packing, ++width, 179 + width % 3};
    // Under a name of its own: the one before may not have gone yet.
    const std::string name = std::to_string(picture.packing);
    SCOPED_TRACE(name);
    const Camera camera({.name = name, .description = name, .pictures = {picture}, .rate = {100, 1}});
    ASSERT_TRUE(hasSources(host, {name + " Video"}));
    const VideoTake take(host, name + " Video", {picture});
    EXPECT_TRUE(take.waitForMore(5));
  }
}

TEST_F(VideoTest, StampsAreWhenPicturesWereTakenAndWhatIsLostOrCannotBeDecodedIsADrop) {
  const Picture picture{MotionJPEG, 320, 180};
  const Camera camera({.pictures = {picture}, .rate = {60'000, 1001}, .loseEvery = 10, .corruptEvery = 7});
  Host host;
  ASSERT_TRUE(hasSources(host, {"Camera Video"}));
  const VideoTake take(host, "Camera Video", {picture});
  ASSERT_TRUE(take.waitForMore(45));
  expectEveryPictureCounted(host, take);

  for (const auto& frame : take.frames()) {
    EXPECT_NEAR(static_cast<double>(frame.time), static_cast<double>(camera.timeOf(frame.number)), 12'000) << "a tick";
    EXPECT_TRUE(frame.number % 10 != 9 && frame.number % 7 != 6);
  }
  EXPECT_GE(host.timescale("Camera Video"), 90'000);
  host.disconnect();
  EXPECT_EQ(host.account("Camera Video", "video")["delivered"], std::ssize(take.frames()));
  EXPECT_GE(take.missing(), 8U);
}

// Its buffers are DmaBufs.
TEST_F(VideoTest, TheServersV4L2CameraLosesWhatItLosesAndNothingElse) {
  server.setWebcam("lose=10");
  const ServerObject camera("spa-node-factory", webcam("Webcam"));
  Host host;
  ASSERT_TRUE(hasSources(host, {"Webcam Video"}));
  const VideoTake take(host, "Webcam Video", {webcamPicture}, 10);
  ASSERT_TRUE(take.waitForMore(35));
  expectEveryPictureCounted(host, take);
  for (const auto& frame : take.frames()) EXPECT_NE(frame.number % 10, 9U);
}

TEST_F(VideoTest, FormatsMayChangeFromEitherSideWhileItRuns) {
  const std::vector<Picture> pictures = {{SPA_VIDEO_FORMAT_YUY2, 320, 180},
                                         {SPA_VIDEO_FORMAT_UYVY, 200, 150},
                                         {SPA_VIDEO_FORMAT_YUY2, 160, 120},
                                         {MotionJPEG, 640, 360}};
  const std::string source = "Camera Video";
  Camera camera({.pictures = {pictures[0], pictures[2]}});
  Host host;
  ASSERT_TRUE(hasSources(host, {source}));
  const VideoTake take(host, source, pictures);
  ASSERT_TRUE(take.waitForMore(5));
  const auto changesTo = [&](std::size_t picture) {
    return until([&] { return take.frames().back().picture == picture; }, 10) && take.waitForMore(3);
  };
  BRV_CALL(host.module, BRV_SetSourceSettings)
  (nullptr, source.c_str(), R"(<record name="settings"><record name="parameter">
      <text name="name" value="Video Settings"/><int32 name="value" value="1"/></record></record>)");
  EXPECT_TRUE(changesTo(2)) << "the host asks for another";
  for (const std::size_t offered : {3U, 1U, 0U}) {
    camera.offer({pictures[offered]});
    EXPECT_TRUE(changesTo(offered)) << "the camera offers only " << offered;
  }
}

TEST_F(VideoTest, AnotherProgramMayHoldAnotherFormat) {
  const Picture held{SPA_VIDEO_FORMAT_UYVY, 640, 360};
  const Camera camera({.pictures = {{}, held}});
  const Process program(
      {"gst-launch-1.0", "-q", "pipewiresrc", "target-object=camera", "!", "video/x-raw,format=UYVY", "!", "fakesink"});
  ASSERT_TRUE(until([&] { return camera.sent() > 1; }));
  Host host;
  ASSERT_TRUE(hasSources(host, {"Camera Video"}));
  const VideoTake take(host, "Camera Video", {held});
  EXPECT_TRUE(take.waitForMore(5));
}

/// The numbers of the pictures of a recording, -1 for what is none of the camera's.
std::vector<int> numbersIn(const std::string& y4m, const Picture& picture) {
  std::ifstream file(y4m, std::ios::binary);
  std::string line;
  std::getline(file, line);
  const std::size_t pairs = picture.width / 2 * picture.height;
  std::vector<int> numbers;
  std::vector<std::uint8_t> planes(4 * pairs), pixels(4 * pairs);
  while (std::getline(file, line) &&
         file.read(reinterpret_cast<char*>(planes.data()), static_cast<std::streamsize>(planes.size()))) {
    for (std::size_t i = 0; i < pairs; ++i) {
      const std::uint8_t pair[] = {planes[2 * i], planes[2 * pairs + i], planes[2 * i + 1], planes[3 * pairs + i]};
      std::ranges::copy(pair, pixels.begin() + static_cast<std::ptrdiff_t>(4 * i));
    }
    numbers.push_back(numberIn(pixels.data(), picture.width * 2, picture).value_or(-1));
  }
  return numbers;
}

TEST_F(VideoTest, RecordingsOfACameraAndOfAnotherProgramAreBitForBitWhatWasSent) {
  const Picture picture{SPA_VIDEO_FORMAT_I420, 330, 178};
  const Camera camera({.pictures = {picture}});
  std::ofstream pictures(Server::file("pictures"), std::ios::binary);
  for (std::uint64_t number = 0; number < 256; ++number) {
    std::uint32_t stride = 0;
    const auto bytes = packed(picture, number, stride);
    pictures.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  const Process program({"gst-launch-1.0", "-q", "filesrc", "location=" + Server::file("pictures"), "!",
                         "rawvideoparse", "format=i420", "width=330", "height=178", "framerate=30/1", "!", "identity",
                         "sync=true", "!", "pipewiresink", "mode=provide",
                         "stream-properties=p,media.class=Video/Source,node.name=gst,node.description=Program"});
  Host host;
  ASSERT_TRUE(hasSources(host, {"Camera Video", "Program Video"}));
  for (const std::string source : {"Camera", "Program"}) {
    const std::string take = Server::file(source);
    const std::string said = outputOfHost("record " + source + " " + take + ".y4m --seconds 1 --max-missing 100%");
    std::smatch counts;
    ASSERT_TRUE(std::regex_search(said, counts, std::regex("delivered ([0-9]+), missing ([0-9]+)"))) << said;
    const std::vector<int> numbers = numbersIn(take + ".y4m", picture);
    EXPECT_GE(numbers.size(), 15U);
    EXPECT_EQ(std::stoi(counts[1]), std::ssize(numbers));
    EXPECT_THAT(numbers, testing::Each(testing::Ge(0)));
    const int missing = numbers.back() - numbers.front() + 1 - static_cast<int>(numbers.size());
    EXPECT_LE((missing + 256) % 256, std::stoi(counts[2]));
  }
}

}  // namespace
}  // namespace test::pipewire
