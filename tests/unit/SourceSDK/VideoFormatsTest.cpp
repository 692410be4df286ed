#include <gmock/gmock.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>

#include "AVCaptureDeviceFormat+AVRecorderAdditions.h"
#include "AVDeviceManager.h"
#include "common/CommonSDK.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class VideoFormatsTest : public FrameworkTest {
 protected:
  VideoFormatsTest() {
    slept = 0;
    zThread::SetSleepFunction([](unsigned microseconds) { slept += microseconds; });
    zTrace::Default().SetSink([this](const char* note) { traces.emplace_back(note); });
    CSDK::initialize();
  }
  ~VideoFormatsTest() override {
    delete manager;
    CSDK::uninitialize();
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
  }

  AV::Device& sourceWith(std::vector<hardware::VideoFormat> formats) {
    hardware::DeviceDescription description = fake::camera("Cam", "c")->description();
    description.videoFormats = std::move(formats);
    camera = std::make_shared<fake::Device>(description);
    fake::install({camera});
    manager = AV::DeviceManager::instance();
    manager->detectDeviceConnect();
    return *manager->getDeviceWithIndex(0);
  }

  std::shared_ptr<fake::Device> camera;
  AV::DeviceManager* manager = nullptr;
  std::vector<std::string> traces;
  static inline unsigned slept = 0;
};

hardware::VideoFormat named(std::string name, std::int32_t width, std::int32_t height) {
  auto format = fake::videoFormat(width, height);
  format.name = std::move(name);
  return format;
}

TEST_F(VideoFormatsTest, TheAutomaticChoiceIsTheFirstLargestUpToFullHD) {
  struct Case {
    std::vector<hardware::VideoFormat> formats;
    int best;
  };
  const auto f = fake::videoFormat;
  for (const Case& c : {Case{{f(1280, 720), f(1920, 1080), f(3840, 2160)}, 1},
                        Case{{f(640, 480), f(1280, 720), f(1920, 1080), f(2048, 1080), f(0, 0), f(1920, 1080)}, 2},
                        Case{{f(3840, 2160), f(4096, 2160)}, 0}, Case{{f(0, 0), f(16, 16)}, 1}, Case{{}, 0}}) {
    AV::Device& source = sourceWith(c.formats);
    EXPECT_EQ(source.getBestSupportedVideoFormatIndex(), c.best);
    for (std::size_t i = 0; i < c.formats.size(); ++i) {
      EXPECT_EQ(source.isVideoFormatPotentiallyTooLarge(static_cast<int>(i)), c.formats[i].width > 1920);
    }
    delete manager;
    manager = nullptr;
  }
}

TEST_F(VideoFormatsTest, FormatsAndRatesHaveTitles) {
  auto rates = fake::videoFormat(1280, 720);
  rates.frameRates = {fake::frameRates(1, 30, CMTimeMake(1, 30)),
                      fake::frameRates(5, 30000.0 / 1001, CMTimeMake(1001, 30000))};
  AV::Device& source = sourceWith({rates, named("Component", 1280, 720), fake::videoFormat(0, 0)});
  const auto title = [&](int index) {
    std::string text = "none";
    return source.getSupportedVideoFormatString(index, &text) ? text : "refused";
  };

  EXPECT_EQ(title(0), "1280 x 720");
  EXPECT_EQ(title(1), "Component, 1280 x 720");
  EXPECT_EQ(title(2), "Cam Video - av_source_no_video_format_name");
  EXPECT_EQ(title(3), "refused");
  EXPECT_EQ(title(-1), "refused");
  EXPECT_EQ(source.getSupportedVideoFPSTitle(0), "30.00");
  EXPECT_EQ(source.getSupportedVideoFPSTitle(1), "29.97");
  EXPECT_EQ(source.getSupportedVideoFPSTitle(2), "");
  EXPECT_EQ(source.getSupportedVideoFPS(1), 5.0F);
}

TEST_F(VideoFormatsTest, TheAutomaticChoiceRunsAtEveryStartUntilTheHostHasChosen) {
  AV::Device& source = sourceWith({fake::videoFormat(640, 480), fake::videoFormat(1280, 720)});

  source.startDevice();
  EXPECT_EQ(camera->selectedVideoFormat, 1U);
  EXPECT_EQ(slept, 100'000U);
  source.startDevice();
  EXPECT_EQ(slept, 100'000U) << "it was running";
  EXPECT_EQ(source.getDeviceWidth(), 1280);

  EXPECT_TRUE(source.setSupportedVideoFormat(0));
  source.stopDevice();
  source.startDevice();
  EXPECT_EQ(camera->selectedVideoFormat, 0U);
  EXPECT_EQ(source.getSelectedVideoFormatIndex(), 0);
  EXPECT_EQ(slept, 200'000U);
}

TEST_F(VideoFormatsTest, ACameraThatCannotBeLockedKeepsItsFormatAndRate) {
  AV::Device& source = sourceWith({fake::videoFormat(640, 480), fake::videoFormat(1280, 720)});
  camera->configurationError = "Busy elsewhere.";

  EXPECT_FALSE(source.setSupportedVideoFormat(1));
  EXPECT_EQ(source.getSelectedVideoFormatIndex(), 0);
  std::string error;
  EXPECT_TRUE(source.getErrorString(error));
  EXPECT_EQ(error, "Busy elsewhere.");
  EXPECT_FALSE(source.setVideoFPSIndex(0));
  EXPECT_TRUE(source.getErrorString(error));
  EXPECT_THAT(traces, ElementsAre("AV::Device::setSupportedVideoFormat Failed to change format, locking of camera "
                                  "[Cam] for configuration failed",
                                  HasSubstr("[Cam]")));

  source.startDevice();
  EXPECT_EQ(traces.size(), 2U) << "the host has chosen, even though in vain";
  for (int outside : {-1, 2}) {
    EXPECT_FALSE(source.setSupportedVideoFormat(outside));
    EXPECT_FALSE(source.setVideoFPSIndex(outside));
  }
  EXPECT_FALSE(source.getErrorString(error));
}

TEST_F(VideoFormatsTest, TheSelectedFormatIsFoundByName) {
  AV::Device& twins = sourceWith({named("A", 640, 480), named("A", 640, 480), fake::videoFormat(0, 0)});
  EXPECT_TRUE(twins.setSupportedVideoFormat(1));
  EXPECT_EQ(twins.getSelectedVideoFormatIndex(), 0);
  std::string text;
  EXPECT_TRUE(twins.getSelectedVideoFormatString(&text));
  EXPECT_EQ(text, "A, 640 x 480");

  EXPECT_TRUE(twins.setSupportedVideoFormat(2));
  EXPECT_EQ(twins.getSelectedVideoFormatIndex(), -1);
  EXPECT_FALSE(twins.getSelectedVideoFormatString(&text));
}

TEST_F(VideoFormatsTest, AFrameRateIsAppliedAtTheRangesHighestAndComparedByValue) {
  auto format = fake::videoFormat(640, 480);
  format.frameRates = {fake::frameRates(1, 60, CMTimeMake(1, 60)), fake::frameRates(1, 30, CMTimeMake(2, 60)),
                       fake::frameRates(1, 30, CMTimeMake(1, 30))};
  AV::Device& source = sourceWith({format});
  EXPECT_EQ(source.getSelectedVideoFPSIndex(), 0);

  EXPECT_TRUE(source.setVideoFPSIndex(2));

  EXPECT_EQ(CMTimeCompare(camera->selectedFrameDuration, CMTimeMake(1, 30)), 0);
  EXPECT_EQ(source.getSelectedVideoFPSIndex(), 1) << "the first range of the same value";
}

TEST_F(VideoFormatsTest, FrameDurationIsCountedInTheTimescaleOfTheSamples) {
  AV::Device& source = sourceWith({fake::videoFormat(640, 480)});
  EXPECT_EQ(source.getDeviceTimescale(), -1);
  EXPECT_EQ(source.getDeviceFrameDuration(), 0);
  static std::vector<int> flags;
  flags.clear();
  source.setVideoDataArriveCallback([](void*, BRV_VideoBuffer* buffer) { flags.push_back(buffer->flags); }, this);

  for (int i = 0; i < 2; ++i) {
    source.restartDevice();
    camera->captureFrame(CMTimeMake(i, 30000));
    source.stopDevice();
    EXPECT_TRUE(source.setVideoFPSIndex(0));
  }

  EXPECT_EQ(source.getDeviceTimescale(), 30000);
  EXPECT_EQ(source.getDeviceFrameDuration(), 1000);
  EXPECT_THAT(flags, ElementsAre(0, 0x21)) << "a new frame rate is marked on the next frame";
}

TEST_F(VideoFormatsTest, OnlyTallTransportStreamsAreHDV) {
  hardware::DeviceDescription description = fake::camcorder("Deck", "d")->description();
  constexpr FourCharCode mp2t = 0x6D703274;
  description.videoFormats = {fake::videoFormat(1440, 1080), fake::videoFormat(720, 576), fake::videoFormat(720, 576)};
  for (auto& format : description.videoFormats) format.mediaSubType = mp2t;
  description.videoFormats[2].presentationWidth = 1280;
  description.videoFormats[2].presentationHeight = 720;
  description.videoFormats.push_back(fake::videoFormat(1440, 1080));
  fake::install({std::make_shared<fake::Device>(description)});

  std::vector<bool> areHDV;
  for (const auto& format : AVCaptureDevice::devices().front()->formats()) areHDV.push_back(isHDV(*format));

  EXPECT_THAT(areHDV, ElementsAre(true, false, true, false));
}

}  // namespace
