#include <AudioToolbox/AudioFormat.h>
#include <CoreFoundation/CFRef.h>
#include <gtest/gtest.h>

#include <string>

namespace {

constexpr AudioFormatFlags kPacked = kAudioFormatFlagIsPacked;

template <typename Specifier>
std::string nameOf(AudioFormatPropertyID property, const Specifier& specifier, OSStatus expected = noErr) {
  CFStringRef name = nullptr;
  UInt32 size = sizeof name;
  EXPECT_EQ(AudioFormatGetProperty(property, sizeof specifier, &specifier, &size, &name), expected);
  const auto owner = CFRef<CFStringRef>::adopt(name);
  return name ? CFStringGetCStringPtr(name, kCFStringEncodingUTF8) : std::string();
}

std::string formatName(double rate, AudioFormatFlags flags, UInt32 bits, UInt32 channels) {
  const AudioStreamBasicDescription format{rate, kAudioFormatLinearPCM, flags, 0, 1, 0, channels, bits, 0};
  return nameOf(kAudioFormatProperty_FormatName, format);
}

TEST(FormatName, SpellsOutAStreamDescription) {
  EXPECT_EQ(formatName(44100, kAudioFormatFlagIsSignedInteger | kPacked, 16, 2),
            "Linear PCM, 16 bit little-endian signed integer, 2 channels, 44100 Hz");
  EXPECT_EQ(formatName(48000, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsBigEndian, 24, 1),
            "Linear PCM, 24 bit big-endian signed integer, 1 channel, 48000 Hz");
  EXPECT_EQ(formatName(96000, kAudioFormatFlagIsFloat | kAudioFormatFlagIsNonInterleaved, 32, 6),
            "Linear PCM, 32 bit little-endian floating point, deinterleaved, 6 channels, 96000 Hz");
  EXPECT_EQ(formatName(11025.5, kPacked, 8, 1), "Linear PCM, 8 bit unsigned integer, 1 channel, 11025.5 Hz");
}

TEST(FormatName, LeavesOutWhatIsZero) {
  EXPECT_EQ(formatName(44100, kAudioFormatFlagIsSignedInteger | kPacked, 16, 0),
            "Linear PCM, 16 bit little-endian signed integer, 44100 Hz");
  EXPECT_EQ(formatName(0, kAudioFormatFlagIsSignedInteger | kPacked, 16, 2),
            "Linear PCM, 16 bit little-endian signed integer, 2 channels");
}

TEST(LayoutName, NamesTheChannelsInTheirOrder) {
  const auto name = [](AudioChannelLayoutTag tag, OSStatus status = noErr) {
    return nameOf(kAudioFormatProperty_ChannelLayoutName, AudioChannelLayout{tag, 0, 0}, status);
  };
  EXPECT_EQ(name(kAudioChannelLayoutTag_Mono), "Mono");
  EXPECT_EQ(name(kAudioChannelLayoutTag_Stereo), "Stereo (L R)");
  EXPECT_EQ(name(kAudioChannelLayoutTag_MPEG_5_1_A), "5.1 (L R C LFE Ls Rs)");
  EXPECT_EQ(name(kAudioChannelLayoutTag_Unknown | 2, kAudioFormatUnknownFormatError), "");
}

TEST(AudioFormatGetProperty, RefusesWhatItCannotAnswer) {
  const AudioStreamBasicDescription compressed{48000, 0x61616320, 0, 0, 1024, 0, 2, 0, 0};
  EXPECT_EQ(nameOf(kAudioFormatProperty_FormatName, compressed, kAudioFormatUnsupportedDataFormatError), "");
  EXPECT_EQ(nameOf(kAudioFormatProperty_FormatName, UInt32{0}, kAudioFormatBadSpecifierSizeError), "");
  EXPECT_EQ(nameOf(kAudioFormatProperty_ChannelLayoutName, UInt32{0}, kAudioFormatBadSpecifierSizeError), "");
  EXPECT_EQ(nameOf(AudioFormatPropertyID{0}, compressed, kAudioFormatUnsupportedPropertyError), "");

  const AudioChannelLayout mono{kAudioChannelLayoutTag_Mono, 0, 0};
  CFStringRef name = nullptr;
  UInt32 size = 4;
  EXPECT_EQ(AudioFormatGetProperty(kAudioFormatProperty_ChannelLayoutName, sizeof mono, &mono, &size, &name),
            kAudioFormatBadPropertySizeError);
  EXPECT_EQ(AudioFormatGetProperty(kAudioFormatProperty_ChannelLayoutName, sizeof mono, nullptr, &size, &name),
            kAudioFormatUnspecifiedError);
}

}  // namespace
