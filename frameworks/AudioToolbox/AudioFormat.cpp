#include <AudioToolbox/AudioFormat.h>

#include <array>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

namespace {

struct LayoutName {
  AudioChannelLayoutTag tag;
  const char* name;
};

constexpr LayoutName LayoutNames[] = {
    {kAudioChannelLayoutTag_Mono, "Mono"},
    {kAudioChannelLayoutTag_Stereo, "Stereo (L R)"},
    {kAudioChannelLayoutTag_Quadraphonic, "Quadraphonic"},
    {kAudioChannelLayoutTag_MPEG_3_0_A, "3.0 (L R C)"},
    {kAudioChannelLayoutTag_MPEG_4_0_A, "4.0 (L R C Cs)"},
    {kAudioChannelLayoutTag_MPEG_5_0_A, "5.0 (L R C Ls Rs)"},
    {kAudioChannelLayoutTag_MPEG_5_1_A, "5.1 (L R C LFE Ls Rs)"},
    {kAudioChannelLayoutTag_MPEG_6_1_A, "6.1 (L R C LFE Ls Rs Cs)"},
    {kAudioChannelLayoutTag_MPEG_7_1_A, "7.1 (L R C LFE Ls Rs Lc Rc)"},
};

std::string sampleName(const AudioStreamBasicDescription& format) {
  std::string name = std::to_string(format.mBitsPerChannel) + " bit ";
  if (format.mBitsPerChannel > 8) {
    name += format.mFormatFlags & kAudioFormatFlagIsBigEndian ? "big-endian " : "little-endian ";
  }
  if (format.mFormatFlags & kAudioFormatFlagIsFloat) return name + "floating point";
  return name + (format.mFormatFlags & kAudioFormatFlagIsSignedInteger ? "signed integer" : "unsigned integer");
}

std::string formatName(const AudioStreamBasicDescription& format) {
  std::string name = "Linear PCM, " + sampleName(format);
  if (format.mFormatFlags & kAudioFormatFlagIsNonInterleaved) name += ", deinterleaved";
  if (format.mChannelsPerFrame == 1) name += ", 1 channel";
  if (format.mChannelsPerFrame > 1) name += ", " + std::to_string(format.mChannelsPerFrame) + " channels";
  if (format.mSampleRate > 0) {
    // Not printf, which would write a decimal comma where the host's locale has one.
    std::array<char, 32> rate;
    const auto end = std::to_chars(rate.begin(), rate.end(), format.mSampleRate, std::chars_format::general, 10).ptr;
    name.append(", ").append(rate.begin(), end).append(" Hz");
  }
  return name;
}

OSStatus describeFormat(UInt32 size, const void* specifier, std::string& name) {
  AudioStreamBasicDescription format;
  if (size < sizeof format) return kAudioFormatBadSpecifierSizeError;
  std::memcpy(&format, specifier, sizeof format);
  if (format.mFormatID != kAudioFormatLinearPCM || format.mBitsPerChannel == 0) {
    return kAudioFormatUnsupportedDataFormatError;
  }
  name = formatName(format);
  return noErr;
}

/// The name of inputs that have nothing to do with others, as people count them: one, or two in a row.
std::optional<std::string> inputsName(const AudioChannelDescription* channels, UInt32 count) {
  if (count < 1 || count > 2 || channels[0].mChannelLabel < kAudioChannelLabel_Discrete_0) return std::nullopt;
  const UInt32 first = channels[0].mChannelLabel - kAudioChannelLabel_Discrete_0 + 1;
  if (count == 1) return "input " + std::to_string(first);
  if (channels[1].mChannelLabel != channels[0].mChannelLabel + 1) return std::nullopt;
  return "inputs " + std::to_string(first) + " and " + std::to_string(first + 1);
}

OSStatus describeLayout(UInt32 size, const void* specifier, std::string& name) {
  AudioChannelLayout layout;
  if (size < sizeof layout) return kAudioFormatBadSpecifierSizeError;
  std::memcpy(&layout, specifier, sizeof layout);
  if (layout.mChannelLayoutTag == kAudioChannelLayoutTag_UseChannelDescriptions) {
    std::array<AudioChannelDescription, 2> channels{};
    const UInt32 count = layout.mNumberChannelDescriptions;
    if (count > channels.size()) return kAudioFormatUnknownFormatError;
    if (size < sizeof layout + count * sizeof channels[0]) return kAudioFormatBadSpecifierSizeError;
    std::memcpy(channels.data(), static_cast<const std::byte*>(specifier) + sizeof layout, count * sizeof channels[0]);
    const auto inputs = inputsName(channels.data(), count);
    if (!inputs) return kAudioFormatUnknownFormatError;
    name = *inputs;
    return noErr;
  }
  for (const LayoutName& known : LayoutNames) {
    if (known.tag == layout.mChannelLayoutTag) {
      name = known.name;
      return noErr;
    }
  }
  return kAudioFormatUnknownFormatError;
}

OSStatus describe(AudioFormatPropertyID property, UInt32 size, const void* specifier, std::string& name) {
  switch (property) {
    case kAudioFormatProperty_FormatName:
      return describeFormat(size, specifier, name);
    case kAudioFormatProperty_ChannelLayoutName:
      return describeLayout(size, specifier, name);
    default:
      return kAudioFormatUnsupportedPropertyError;
  }
}

}  // namespace

OSStatus AudioFormatGetProperty(AudioFormatPropertyID inPropertyID, UInt32 inSpecifierSize, const void* inSpecifier,
                                UInt32* ioPropertyDataSize, void* outPropertyData) {
  if (!inSpecifier || !ioPropertyDataSize || !outPropertyData) return kAudioFormatUnspecifiedError;
  try {
    std::string name;
    const OSStatus status = describe(inPropertyID, inSpecifierSize, inSpecifier, name);
    if (status != noErr) return status;
    if (*ioPropertyDataSize < sizeof(CFStringRef)) return kAudioFormatBadPropertySizeError;

    const CFStringRef string = CFStringCreateWithCString(kCFAllocatorDefault, name.c_str(), kCFStringEncodingUTF8);
    if (!string) return kAudioFormatUnspecifiedError;
    std::memcpy(outPropertyData, &string, sizeof string);
    *ioPropertyDataSize = sizeof string;
    return noErr;
  } catch (const std::exception&) {  // no memory
    return kAudioFormatUnspecifiedError;
  }
}
