#include <AudioToolbox/AudioFormat.h>
#include <CoreFoundation/CFRef.h>
#include <gtest/gtest.h>

#include <string>

namespace {

template <typename Specifier>
std::string nameOf(AudioFormatPropertyID property, const Specifier& specifier, OSStatus expected = noErr) {
  CFStringRef name = nullptr;
  UInt32 size = sizeof name;
  EXPECT_EQ(AudioFormatGetProperty(property, sizeof specifier, &specifier, &size, &name), expected);
  const auto owner = CFRef<CFStringRef>::adopt(name);
  return name ? CFStringGetCStringPtr(name, kCFStringEncodingUTF8) : std::string();
}

TEST(AudioFormat, NamesStreamsAndLayouts) {
  const auto layout = [](AudioChannelLayoutTag tag, OSStatus expected = noErr) {
    return nameOf(kAudioFormatProperty_ChannelLayoutName, AudioChannelLayout{tag, 0, 0}, expected);
  };
  AudioStreamBasicDescription stream{44100, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger, 0, 1, 0, 2, 16, 0};

  EXPECT_EQ(nameOf(kAudioFormatProperty_FormatName, stream),
            "Linear PCM, 16 bit little-endian signed integer, 2 channels, 44100 Hz");
  stream = {11025.5, kAudioFormatLinearPCM, kAudioFormatFlagIsNonInterleaved, 0, 1, 0, 1, 8, 0};
  EXPECT_EQ(nameOf(kAudioFormatProperty_FormatName, stream),
            "Linear PCM, 8 bit unsigned integer, deinterleaved, 1 channel, 11025.5 Hz");
  EXPECT_EQ(layout(kAudioChannelLayoutTag_MPEG_5_1_A), "5.1 (L R C LFE Ls Rs)");

  stream.mFormatID = 0x61616320;
  EXPECT_EQ(nameOf(kAudioFormatProperty_FormatName, stream, kAudioFormatUnsupportedDataFormatError), "");
  EXPECT_EQ(nameOf(kAudioFormatProperty_FormatName, UInt32{0}, kAudioFormatBadSpecifierSizeError), "");
  EXPECT_EQ(layout(kAudioChannelLayoutTag_Unknown | 2, kAudioFormatUnknownFormatError), "");
}

}  // namespace
