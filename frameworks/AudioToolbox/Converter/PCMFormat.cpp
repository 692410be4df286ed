#include <AudioToolbox/Converter/PCMFormat.h>

namespace AudioConversion {
namespace {

bool parseFloat(SampleEncoding& sample, AudioFormatFlags flags) noexcept {
  sample.kind = SampleKind::Float;
  const bool contradictory = (flags & kAudioFormatFlagIsSignedInteger) != 0;
  return !contradictory && (sample.bits == 32 || sample.bits == 64) && sample.containerBytes * 8 == sample.bits;
}

bool parseInteger(SampleEncoding& sample, AudioFormatFlags flags) noexcept {
  if (sample.bits != 8 && sample.bits != 16 && sample.bits != 24 && sample.bits != 32) return false;
  if (sample.containerBytes > 4 || sample.containerBytes * 8 < sample.bits) return false;

  const bool fillsContainer = sample.containerBytes * 8 == sample.bits;
  if ((flags & kAudioFormatFlagIsPacked) && !fillsContainer) return false;
  sample.alignedHigh = !fillsContainer && (flags & kAudioFormatFlagIsAlignedHigh);

  // Offset binary is in use for bytes alone.
  const bool isSigned = (flags & kAudioFormatFlagIsSignedInteger) != 0;
  sample.kind = isSigned ? SampleKind::SignedInteger : SampleKind::UnsignedInteger;
  return isSigned || sample.bits == 8;
}

}  // namespace

bool parsePCMFormat(const AudioStreamBasicDescription& description, unsigned mostChannels, PCMFormat& format) noexcept {
  if (description.mFormatID != kAudioFormatLinearPCM || description.mFramesPerPacket != 1) return false;
  if (description.mChannelsPerFrame < 1 || description.mChannelsPerFrame > mostChannels) return false;
  if (description.mBytesPerFrame == 0 || description.mBytesPerPacket != description.mBytesPerFrame) return false;

  const AudioFormatFlags flags = description.mFormatFlags;
  PCMFormat parsed;
  parsed.sampleRate = description.mSampleRate;
  parsed.channels = description.mChannelsPerFrame;
  parsed.interleaved = parsed.channels == 1 || !(flags & kAudioFormatFlagIsNonInterleaved);

  const unsigned samplesInFrame = parsed.interleaved ? parsed.channels : 1;
  if (description.mBytesPerFrame % samplesInFrame != 0) return false;
  parsed.sample.bits = description.mBitsPerChannel;
  parsed.sample.containerBytes = description.mBytesPerFrame / samplesInFrame;
  if (parsed.sample.containerBytes > 8) return false;
  parsed.sample.bigEndian = parsed.sample.containerBytes > 1 && (flags & kAudioFormatFlagIsBigEndian);

  const bool sampleIsKnown =
      (flags & kAudioFormatFlagIsFloat) ? parseFloat(parsed.sample, flags) : parseInteger(parsed.sample, flags);
  if (!sampleIsKnown) return false;
  format = parsed;
  return true;
}

bool isSampleRateInRange(double sampleRate) noexcept {
  return sampleRate >= kLowestSampleRate && sampleRate <= kHighestSampleRate;
}

}  // namespace AudioConversion
