#include <gmock/gmock.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>

#include "AVCaptureDeviceFormat+AVRecorderAdditions.h"
#include "SourceTest.h"
#include "common/CommonSDK.h"

// Formats and frame rates of a source.

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr FourCharCode TransportStream = 0x6D703274;

class FormatsTest : public SourceTest {
 protected:
  FormatsTest() {
    slept = 0;
    zThread::SetSleepFunction([](unsigned microseconds) { slept += microseconds; });
    zTrace::Default().SetSink([this](const char* note) { traces.emplace_back(note); });
    CSDK::initialize();
  }
  ~FormatsTest() override {
    CSDK::uninitialize();
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
  }

  AV::Device& cameraWith(std::vector<hardware::VideoFormat> formats) {
    device = fake::camera("Cam", "c");
    device->described.videoFormats = std::move(formats);
    detect({device});
    return source();
  }
  AV::Device& microphoneWith(std::vector<hardware::AudioFormat> formats) {
    device = fake::microphone("Mic", "m");
    device->described.audioFormats = std::move(formats);
    detect({device});
    return source();
  }
  std::string error() {
    std::string text = "none";
    source().getErrorString(text);
    return text;
  }

  std::shared_ptr<fake::Device> device;
  std::vector<std::string> traces;
  static inline unsigned slept = 0;
};

/// The titles of the indexes from -1 to `last`.
std::vector<std::string> titles(AV::Device& source, bool ofVideo, int last) {
  std::vector<std::string> found;
  for (int i = -1; i <= last; ++i) {
    std::string text = "refused";
    ofVideo ? source.getSupportedVideoFormatString(i, &text) : source.getSupportedAudioFormatString(i, &text);
    found.push_back(text);
  }
  return found;
}

hardware::VideoFormat named(std::string name, std::int32_t width, std::int32_t height) {
  auto format = fake::videoFormat(width, height);
  format.name = std::move(name);
  return format;
}

hardware::AudioFormat with(AudioFormatFlags flags, AudioChannelLayoutTag layout, hardware::AudioFormat format) {
  format.stream.mFormatFlags |= flags;
  format.layout = layout;
  return format;
}

TEST_F(FormatsTest, TheAutomaticChoiceIsTheFirstLargestUpToFullHD) {
  struct Case {
    std::vector<hardware::VideoFormat> formats;
    int best;
  };
  const auto f = fake::videoFormat;
  for (const Case& c : {Case{{f(1280, 720), f(1920, 1080), f(3840, 2160)}, 1},
                        Case{{f(640, 480), f(1280, 720), f(1920, 1080), f(2048, 1080), f(0, 0), f(1920, 1080)}, 2},
                        Case{{f(3840, 2160), f(4096, 2160)}, 0}, Case{{f(0, 0), f(16, 16)}, 1}, Case{{}, 0}}) {
    AV::Device& camera = cameraWith(c.formats);
    EXPECT_EQ(camera.getBestSupportedVideoFormatIndex(), c.best);
    for (std::size_t i = 0; i < c.formats.size(); ++i) {
      EXPECT_EQ(camera.isVideoFormatPotentiallyTooLarge(static_cast<int>(i)), c.formats[i].width > 1920);
    }
  }
}

TEST_F(FormatsTest, VideoFormatsAndRatesHaveTitles) {
  auto rates = fake::videoFormat(1280, 720);
  rates.frameRates = {fake::frameRates(1, 30, CMTimeMake(1, 30)),
                      fake::frameRates(5, 30000.0 / 1001, CMTimeMake(1001, 30000))};
  AV::Device& camera = cameraWith({rates, named("Component", 1280, 720), fake::videoFormat(0, 0)});

  EXPECT_THAT(titles(camera, true, 3), ElementsAre("refused", "1280 x 720", "Component, 1280 x 720",
                                                   "Cam Video - av_source_no_video_format_name", "refused"));
  const std::string rateTitles[] = {camera.getSupportedVideoFPSTitle(0), camera.getSupportedVideoFPSTitle(1),
                                    camera.getSupportedVideoFPSTitle(2)};
  EXPECT_THAT(rateTitles, ElementsAre("30.00", "29.97", ""));
  EXPECT_EQ(camera.getSupportedVideoFPS(1), 5.0F);
}

TEST_F(FormatsTest, TheAutomaticChoiceRunsAtEveryStartUntilTheHostHasChosen) {
  AV::Device& camera = cameraWith({fake::videoFormat(640, 480), fake::videoFormat(1280, 720)});

  camera.startDevice();
  EXPECT_EQ(device->selectedVideoFormat, 1U);
  EXPECT_EQ(slept, 100'000U);
  camera.startDevice();
  EXPECT_EQ(slept, 100'000U) << "it was running";
  EXPECT_EQ(camera.getDeviceWidth(), 1280);

  EXPECT_TRUE(camera.setSupportedVideoFormat(0));
  camera.stopDevice();
  camera.startDevice();
  EXPECT_EQ(camera.getSelectedVideoFormatIndex(), 0);
  EXPECT_EQ(slept, 200'000U);
}

TEST_F(FormatsTest, ADeviceThatCannotBeLockedKeepsWhatItHasAndSaysWhy) {
  AV::Device& camera = cameraWith({fake::videoFormat(640, 480), fake::videoFormat(1280, 720)});
  device->configurationError = "Busy elsewhere.";
  EXPECT_FALSE(camera.setSupportedVideoFormat(1));
  EXPECT_EQ(camera.getSelectedVideoFormatIndex(), 0);
  EXPECT_EQ(error(), "Busy elsewhere.");
  EXPECT_FALSE(camera.setVideoFPSIndex(0));
  EXPECT_EQ(error(), "Busy elsewhere.");
  EXPECT_THAT(traces, ElementsAre("AV::Device::setSupportedVideoFormat Failed to change format, locking of camera "
                                  "[Cam] for configuration failed",
                                  HasSubstr("[Cam]")));
  camera.startDevice();
  EXPECT_EQ(traces.size(), 2U) << "the host has chosen, even though in vain";
  for (int outside : {-1, 2}) {
    EXPECT_FALSE(camera.setSupportedVideoFormat(outside));
    EXPECT_FALSE(camera.setVideoFPSIndex(outside));
  }
  EXPECT_EQ(error(), "none");

  AV::Device& microphone = microphoneWith({fake::audioFormat(44100), fake::audioFormat(48000)});
  device->configurationError = "Busy.";
  EXPECT_FALSE(microphone.setSupportedAudioFormat(1));
  EXPECT_EQ(microphone.getSelectedAudioFormatIndex(), -1);
  EXPECT_FALSE(microphone.isRunning());
  EXPECT_EQ(error(), "Busy.");
}

TEST_F(FormatsTest, TheSelectedVideoFormatIsFoundByName) {
  AV::Device& twins = cameraWith({named("A", 640, 480), named("A", 640, 480), fake::videoFormat(0, 0)});
  EXPECT_TRUE(twins.setSupportedVideoFormat(1));
  EXPECT_EQ(twins.getSelectedVideoFormatIndex(), 0);
  std::string text;
  EXPECT_TRUE(twins.getSelectedVideoFormatString(&text));
  EXPECT_EQ(text, "A, 640 x 480");

  EXPECT_TRUE(twins.setSupportedVideoFormat(2));
  EXPECT_EQ(twins.getSelectedVideoFormatIndex(), -1);
  EXPECT_FALSE(twins.getSelectedVideoFormatString(&text));
}

TEST_F(FormatsTest, AFrameRateIsAppliedAtTheRangesHighestAndComparedByValue) {
  auto format = fake::videoFormat(640, 480);
  format.frameRates = {fake::frameRates(1, 60, CMTimeMake(1, 60)), fake::frameRates(1, 30, CMTimeMake(2, 60)),
                       fake::frameRates(1, 30, CMTimeMake(1, 30))};
  AV::Device& camera = cameraWith({format});
  EXPECT_EQ(camera.getSelectedVideoFPSIndex(), 0);

  EXPECT_TRUE(camera.setVideoFPSIndex(2));

  EXPECT_EQ(CMTimeCompare(device->selectedFrameDuration, CMTimeMake(1, 30)), 0);
  EXPECT_EQ(camera.getSelectedVideoFPSIndex(), 1) << "the first range of the same value";
}

TEST_F(FormatsTest, FrameDurationIsCountedInTheTimescaleOfTheSamples) {
  AV::Device& camera = cameraWith({fake::videoFormat(640, 480)});
  EXPECT_EQ(camera.getDeviceTimescale(), -1);
  EXPECT_EQ(camera.getDeviceFrameDuration(), 0);
  std::vector<int> flags;
  const auto record = [](void* context, BRV_VideoBuffer* buffer) {
    static_cast<std::vector<int>*>(context)->push_back(buffer->flags);
  };
  camera.setVideoDataArriveCallback(record, &flags);

  for (int i = 0; i < 2; ++i) {
    camera.restartDevice();
    device->captureFrame(CMTimeMake(i, 30000));
    camera.stopDevice();
    EXPECT_TRUE(camera.setVideoFPSIndex(0));
  }

  EXPECT_EQ(camera.getDeviceTimescale(), 30000);
  EXPECT_EQ(camera.getDeviceFrameDuration(), 1000);
  EXPECT_THAT(flags, ElementsAre(0, 0x21)) << "a new frame rate is marked on the next frame";
}

TEST_F(FormatsTest, OnlyTallTransportStreamsAreHDV) {
  auto deck = fake::camcorder("Deck", "d");
  auto& formats = deck->described.videoFormats;
  formats = {fake::videoFormat(1440, 1080), fake::videoFormat(720, 576), fake::videoFormat(720, 576)};
  for (auto& format : formats) format.mediaSubType = TransportStream;
  formats[2].presentationWidth = 1280;
  formats[2].presentationHeight = 720;
  formats.push_back(fake::videoFormat(1440, 1080));
  provider = fake::install({deck});

  std::vector<bool> areHDV;
  for (const auto& format : AVCaptureDevice::devices().front()->formats()) areHDV.push_back(isHDV(*format));

  EXPECT_THAT(areHDV, ElementsAre(true, false, true, false));
}

TEST_F(FormatsTest, OnlyMixableAudioFormatsAreOfferedAndAppliedByTheirPosition) {
  constexpr auto NonMixable = kAudioFormatFlagIsNonMixable;
  AV::Device& microphone = microphoneWith({with(NonMixable, kAudioChannelLayoutTag_Stereo, fake::audioFormat(48000)),
                                           fake::audioFormat(44100),
                                           with(0, kAudioChannelLayoutTag_Unknown, fake::audioFormat(48000, true))});
  EXPECT_THAT(titles(microphone, false, 2),
              ElementsAre("refused", "Linear PCM, 16 bit little-endian signed integer, 44100 Hz, Stereo (L R)",
                          "Linear PCM, 32 bit little-endian floating point, 2 channels, 48000 Hz", "refused"));
  std::string text;
  EXPECT_TRUE(microphone.getSelectedAudioFormatString(&text));
  EXPECT_EQ(text, "Linear PCM, 16 bit little-endian signed integer, 48000 Hz, Stereo (L R), Non-Mixable");
  EXPECT_EQ(microphone.getSelectedAudioFormatIndex(), -1);

  EXPECT_TRUE(microphone.setSupportedAudioFormat(1));

  EXPECT_EQ(device->selectedAudioFormat, 2U);
  EXPECT_TRUE(microphone.isRunning()) << "a change starts the source";
  EXPECT_FALSE(microphone.setSupportedAudioFormat(2));
  EXPECT_EQ(microphone.getSelectedAudioFormatIndex(), 1);
}

TEST_F(FormatsTest, AnAudioFormatWithoutANameIsTitledAfterTheSource) {
  auto compressed = fake::audioFormat(48000);
  compressed.stream.mFormatID = 0x61616320;
  compressed.layout = kAudioChannelLayoutTag_Unknown;
  auto bitstream = compressed;
  bitstream.name = "Bitstream";
  AV::Device& microphone = microphoneWith({compressed, bitstream});

  EXPECT_THAT(titles(microphone, false, 1),
              ElementsAre("refused", "Mic Audio - av_source_no_audio_format_name", "Bitstream"));
  std::string text = "before";
  EXPECT_FALSE(microphone.getSelectedAudioFormatString(&text));
  EXPECT_EQ(text, "before");
}

TEST_F(FormatsTest, AMuxedSourceHasSoundButNothingToChoose) {
  detect({fake::camcorder("Deck", "d")});
  std::string text;

  EXPECT_TRUE(source().hasAudioStream());
  EXPECT_THAT(titles(source(), false, 0), ElementsAre("refused", "refused"));
  EXPECT_FALSE(source().setSupportedAudioFormat(0));
  EXPECT_FALSE(source().getSelectedAudioFormatString(&text));
}

}  // namespace
