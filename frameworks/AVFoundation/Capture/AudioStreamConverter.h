#pragma once

// Turns a device's sound into the format an output was asked for, as one continuous stream. Private to
// AVFoundation; used on one thread at a time.

#include <AVFoundation/Capture/CapturedSample.h>
#include <AudioToolbox/AudioConverter.h>
#include <Hardware.h>

#include <cstdint>

class AudioStreamConverter {
 public:
  explicit AudioStreamConverter(const AudioStreamBasicDescription& destination);
  ~AudioStreamConverter();
  AudioStreamConverter(const AudioStreamConverter&) = delete;
  AudioStreamConverter& operator=(const AudioStreamConverter&) = delete;

  const AudioStreamBasicDescription& destination() const noexcept { return _destination; }

  /// Takes the next chunk of the stream. A chunk of another format, or one whose time does not follow the one before,
  /// begins a new stream; what the converter still owed of the old one is forgone, as after a failure, which is
  /// `noBuffer` or `notConverted`.
  CapturedSample convert(const hardware::AudioChunk& chunk);

  /// What comes next has nothing to do with what came before. Returns what will not come out any more, in frames.
  double endStream();

  /// How many frames are still to come out for what went in.
  double framesOwed() const noexcept;

 private:
  SampleFate makeConverter(const hardware::AudioFormat& format);
  SampleFate fill(const hardware::AudioChunk& chunk, CapturedSample& sample);
  bool follows(const hardware::AudioChunk& chunk) const;
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
