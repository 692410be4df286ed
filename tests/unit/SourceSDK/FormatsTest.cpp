#include <gmock/gmock.h>
#include <lumora/zThread.h>

#include "SourceTest.h"
#include "common/CommonSDK.h"

// Formats and frame rates of a source, as far as a host's settings do not show them.

namespace {

using testing::ElementsAre;

class FormatsTest : public SourceTest {
 protected:
  FormatsTest() {
    zThread::SetSleepFunction([](unsigned) {});
    CSDK::initialize();
  }
  ~FormatsTest() override {
    CSDK::uninitialize();
    zThread::SetSleepFunction(nullptr);
  }

  AV::Device& cameraWith(std::vector<hardware::VideoFormat> formats) {
    camera->described.videoFormats = std::move(formats);
    detect({camera});
    return source();
  }
  /// What `ask` says and writes.
  template <typename Ask>
  static std::string title(Ask ask) {
    std::string text = "refused";
    const bool isTold = ask(&text);
    EXPECT_EQ(isTold, text != "refused");
    return text;
  }
  /// The titles of sound formats from index -1 to `last`, and that of the selected one.
  std::vector<std::string> soundTitles(int last) {
    std::vector<std::string> titles;
    for (int i = -1; i <= last; ++i)
      titles.push_back(title([&](auto* text) { return source().getSupportedAudioFormatString(i, text); }));
    titles.push_back(title([&](auto* text) { return source().getSelectedAudioFormatString(text); }));
    return titles;
  }

  std::shared_ptr<fake::Device> camera = fake::camera("Cam", "c");
};

TEST_F(FormatsTest, TheAutomaticChoiceIsTheFirstLargestUpToFullHD) {
  const auto f = fake::videoFormat;
  const struct {
    std::vector<hardware::VideoFormat> formats;
    int best;
    std::string title;
    std::vector<int> tooLarge;
  } cases[] = {{{f(1280, 720), f(1920, 1080), f(2048, 1080), f(0, 0), f(1920, 1080)}, 1, "1920 x 1080", {2}},
               {{f(3840, 2160), f(4096, 2160)}, 0, "3840 x 2160", {0, 1}},
               {{f(0, 1), f(1, 1)}, 1, "1 x 1", {}},
               {{f(1, 0), f(0, 1)}, 0, "Cam Video - av_source_no_video_format_name", {}},
               {{}, 0, "refused", {}}};
  for (const auto& each : cases) {
    const AV::Device& device = cameraWith(each.formats);
    EXPECT_EQ(device.getBestSupportedVideoFormatIndex(), each.best);
    EXPECT_EQ(title([&](auto* text) { return device.getBestSupportedVideoFormatString(text); }), each.title);
    std::vector<int> tooLarge;
    const int count = device.supportedVideoFormatListCount();
    for (int i = -1; i <= count; ++i) {
      if (device.isVideoFormatPotentiallyTooLarge(i)) tooLarge.push_back(i);
    }
    EXPECT_EQ(tooLarge, each.tooLarge);
    const auto first = each.formats.empty() ? f(0, 0) : each.formats[0];
    EXPECT_EQ(std::pair(device.getDeviceWidth(), device.getDeviceHeight()), std::pair(first.width, first.height));
    const bool isNamed = first.width > 0 && first.height > 0;
    EXPECT_EQ(title([&](auto* text) { return device.getSelectedVideoFormatString(text); }),
              isNamed ? std::to_string(first.width) + " x " + std::to_string(first.height) : "refused");
    EXPECT_EQ(device.getSelectedVideoFormatIndex(), isNamed ? 0 : -1);
  }
}

TEST_F(FormatsTest, AFrameRateIsAppliedAtTheRangesHighestAndComparedByValue) {
  auto format = fake::videoFormat(640, 480);
  format.frameRates = {fake::frameRates(5, 60, CMTimeMake(1, 60)), fake::frameRates(1, 30, CMTimeMake(2, 60)),
                       fake::frameRates(1, 30, CMTimeMake(1, 30))};
  AV::Device& device = cameraWith({format});
  EXPECT_EQ(device.getSelectedVideoFPSIndex(), 0);
  EXPECT_EQ(device.getSupportedVideoFPS(0), 5.0F);

  EXPECT_TRUE(device.setVideoFPSIndex(2));

  EXPECT_EQ(CMTimeCompare(camera->selectedFrameDuration, CMTimeMake(1, 30)), 0);
  EXPECT_EQ(device.getSelectedVideoFPSIndex(), 1) << "the first range of the same value";
  for (const int none : {-1, 3}) {
    EXPECT_FALSE(device.setVideoFPSIndex(none));
    EXPECT_EQ(device.getSupportedVideoFPSTitle(none) + std::to_string(device.getSupportedVideoFPS(none)), "0.000000");
  }
}

TEST_F(FormatsTest, OnlyMixableAudioFormatsAreOfferedAndAppliedByTheirPosition) {
  auto unmixable = fake::audioFormat(48000), withoutLayout = fake::audioFormat(48000, true);
  unmixable.stream.mFormatFlags |= kAudioFormatFlagIsNonMixable;
  withoutLayout.layout = kAudioChannelLayoutTag_Unknown;
  auto compressed = withoutLayout;
  compressed.stream.mFormatID = 0x61616320;  // 'aac '
  auto bitstream = compressed;
  bitstream.name = "Bitstream";
  auto microphone = fake::microphone("Mic", "m");
  auto inputs = fake::audioFormat(44100), lastInput = inputs;
  inputs.firstInput = 2;
  lastInput.firstInput = 4;
  lastInput.stream.mChannelsPerFrame = 1;
  microphone->described.audioFormats = {
      unmixable, fake::audioFormat(44100), withoutLayout, compressed, bitstream, inputs, lastInput};
  detect({microphone});
  EXPECT_THAT(soundTitles(6),
              ElementsAre("refused", "Linear PCM, 16 bit little-endian signed integer, 44100 Hz, Stereo (L R)",
                          "Linear PCM, 32 bit little-endian floating point, 2 channels, 48000 Hz",
                          "Mic Audio - av_source_no_audio_format_name", "Bitstream",
                          "Linear PCM, 16 bit little-endian signed integer, 44100 Hz, inputs 3 and 4",
                          "Linear PCM, 16 bit little-endian signed integer, 44100 Hz, input 5", "refused",
                          "Linear PCM, 16 bit little-endian signed integer, 48000 Hz, Stereo (L R), Non-Mixable"));

  for (int index : {0, 1}) EXPECT_TRUE(source().setSupportedAudioFormat(index));
  EXPECT_EQ(microphone->selectedAudioFormat, 2U);
  EXPECT_EQ(microphone->starts, 2) << "each change starts the source anew";
  microphone->configurationError = "Busy.";
  for (int index : {0, 6}) EXPECT_FALSE(source().setSupportedAudioFormat(index)) << index;
  EXPECT_EQ(source().getSelectedAudioFormatIndex(), 1);
}

}  // namespace
