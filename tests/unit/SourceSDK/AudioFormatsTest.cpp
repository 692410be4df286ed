#include <gmock/gmock.h>

#include "AVCaptureDeviceFormat+AVRecorderAdditions.h"
#include "AVDeviceManager.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

using testing::ElementsAre;

class AudioFormatsTest : public FrameworkTest {
 protected:
  ~AudioFormatsTest() override { delete manager; }

  AV::Device& sourceWith(std::vector<hardware::AudioFormat> formats) {
    hardware::DeviceDescription description = fake::microphone("Mic", "m")->description();
    description.audioFormats = std::move(formats);
    microphone = std::make_shared<fake::Device>(description);
    fake::install({microphone});
    manager = AV::DeviceManager::instance();
    manager->detectDeviceConnect();
    return *manager->getDeviceWithIndex(0);
  }

  std::shared_ptr<fake::Device> microphone;
  AV::DeviceManager* manager = nullptr;
};

hardware::AudioFormat nonMixable(hardware::AudioFormat format) {
  format.stream.mFormatFlags |= kAudioFormatFlagIsNonMixable;
  return format;
}

hardware::AudioFormat withoutLayout(hardware::AudioFormat format) {
  format.layout = kAudioChannelLayoutTag_Unknown;
  return format;
}

TEST_F(AudioFormatsTest, OnlyMixableFormatsAreOfferedAndAppliedByTheirPosition) {
  AV::Device& source = sourceWith(
      {fake::audioFormat(44100), nonMixable(fake::audioFormat(48000)), withoutLayout(fake::audioFormat(48000, true))});
  const auto title = [&](int index) {
    std::string text;
    return source.getSupportedAudioFormatString(index, &text) ? text : "refused";
  };
  EXPECT_EQ(source.supportedAudioFormatListCount(), 2);
  EXPECT_EQ(title(0), "Linear PCM, 16 bit little-endian signed integer, 44100 Hz, Stereo (L R)");
  EXPECT_EQ(title(1), "Linear PCM, 32 bit little-endian floating point, 2 channels, 48000 Hz");
  EXPECT_EQ(title(2), "refused");
  EXPECT_EQ(title(-1), "refused");
  EXPECT_EQ(source.getSelectedAudioFormatIndex(), -1);

  EXPECT_TRUE(source.setSupportedAudioFormat(1));

  EXPECT_EQ(microphone->selectedAudioFormat, 2U);
  EXPECT_EQ(source.getSelectedAudioFormatIndex(), 1);
  EXPECT_TRUE(source.isRunning()) << "a change starts the source";
  EXPECT_FALSE(source.setSupportedAudioFormat(2));
  EXPECT_EQ(source.getSelectedAudioFormatIndex(), 1);
}

TEST_F(AudioFormatsTest, AFormatThatCannotBeMixedSaysSo) {
  AV::Device& source = sourceWith({nonMixable(fake::audioFormat(48000))});
  std::string text;

  EXPECT_EQ(source.supportedAudioFormatListCount(), 0);
  EXPECT_TRUE(source.getSelectedAudioFormatString(&text));
  EXPECT_EQ(text, "Linear PCM, 16 bit little-endian signed integer, 48000 Hz, Stereo (L R), Non-Mixable");
  EXPECT_FALSE(source.setSupportedAudioFormat(0));
}

TEST_F(AudioFormatsTest, AFormatWithoutANameIsTitledAfterTheSource) {
  auto compressed = withoutLayout(fake::audioFormat(48000));
  compressed.stream.mFormatID = 0x61616320;
  auto named = compressed;
  named.name = "Bitstream";
  AV::Device& source = sourceWith({compressed, named});
  std::string text;

  EXPECT_TRUE(source.getSupportedAudioFormatString(0, &text));
  EXPECT_EQ(text, "Mic Audio - ");
  EXPECT_TRUE(source.getSupportedAudioFormatString(1, &text));
  EXPECT_EQ(text, "Bitstream");
  text = "before";
  EXPECT_FALSE(source.getSelectedAudioFormatString(&text));
  EXPECT_EQ(text, "before");
}

TEST_F(AudioFormatsTest, ADeviceThatCannotBeLockedKeepsItsFormatAndIsNotStarted) {
  AV::Device& source = sourceWith({fake::audioFormat(44100), fake::audioFormat(48000)});
  microphone->configurationError = "Busy.";
  std::string error;

  EXPECT_FALSE(source.setSupportedAudioFormat(1));

  EXPECT_EQ(source.getSelectedAudioFormatIndex(), -1);
  EXPECT_FALSE(source.isRunning());
  EXPECT_TRUE(source.getErrorString(error));
  EXPECT_EQ(error, "Busy.");
}

TEST_F(AudioFormatsTest, AMuxedSourceHasSoundButNothingToChoose) {
  fake::install({fake::camcorder("Deck", "d")});
  manager = AV::DeviceManager::instance();
  manager->detectDeviceConnect();
  AV::Device& source = *manager->getDeviceWithIndex(0);
  std::string text;

  EXPECT_TRUE(source.hasAudioStream());
  EXPECT_EQ(source.supportedAudioFormatListCount(), 0);
  EXPECT_FALSE(source.getSupportedAudioFormatString(0, &text));
  EXPECT_FALSE(source.setSupportedAudioFormat(0));
  EXPECT_FALSE(source.getSelectedAudioFormatString(&text));
}

}  // namespace
