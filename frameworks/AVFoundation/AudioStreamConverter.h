#pragma once

// Turns a device's sound into the format an output was asked for, as one continuous stream. Private to
// AVFoundation; used on one thread at a time.

#include <AVFoundation/BlockPool.h>
#include <AudioToolbox/AudioConverter.h>
#include <CoreFoundation/CFRef.h>
#include <CoreMedia/CMSampleBuffer.h>
#include <Hardware.h>

#include <cstdint>
#include <optional>

class AudioStreamConverter {
 public:
  explicit AudioStreamConverter(const AudioStreamBasicDescription& destination);
  ~AudioStreamConverter();
  AudioStreamConverter(const AudioStreamConverter&) = delete;
  AudioStreamConverter& operator=(const AudioStreamConverter&) = delete;

  const AudioStreamBasicDescription& destination() const noexcept { return _destination; }

  enum class Failure { noMemory, notConvertible };

  struct Result {
    /// The converted sound; null when the chunk was too short to complete a frame and is still in the converter.
    CFRef<CMSampleBufferRef> sample;
    UInt32 frames = 0;  ///< its length
    /// Why the chunk's sound is lost; the stream has ended then.
    std::optional<Failure> failure;
    /// What was still owed of streams that ended, in frames.
    double forgone = 0;
  };

  /// Takes the next chunk of the stream. A chunk of another format, or one whose time does not follow the one before,
  /// begins a new stream; what the converter still held of the old one is dropped.
  Result convert(const hardware::AudioChunk& chunk, BlockPool& blocks);

  /// What comes next has nothing to do with what came before. Returns what will not come out any more, in frames.
  double endStream();

  /// How many frames are still to come out for what went in.
  double framesOwed() const noexcept;

 private:
  std::optional<Failure> prepareFor(const hardware::AudioFormat& format, Result& result);
  Result failed(Result result, Failure failure);
  bool follows(const hardware::AudioChunk& chunk) const;
  CFRef<CMSampleBufferRef> makeSample(CFRef<CMBlockBufferRef> block, UInt32 frames, CMTime time) const;
  CMTime timeOfNextFrame(const hardware::AudioChunk& chunk) const;
  static OSStatus supplyInput(AudioConverterRef converter, UInt32* packetCount, AudioBufferList* buffers,
                              AudioStreamPacketDescription** packetDescriptions, void* stream);

  const AudioStreamBasicDescription _destination;
  CFRef<CMAudioFormatDescriptionRef> _destinationFormat;
  AudioConverterRef _converter = nullptr;
  AudioStreamBasicDescription _source{};
  AudioChannelLayoutTag _sourceLayout = kAudioChannelLayoutTag_Unknown;

  std::uint64_t _framesIn = 0;   ///< of this stream, before the current chunk
  std::uint64_t _framesOut = 0;  ///< of this stream
  CMTime _endOfLastChunk = kCMTimeInvalid;
  const hardware::AudioChunk* _input = nullptr;  ///< the chunk that the converter has not asked for yet
};
