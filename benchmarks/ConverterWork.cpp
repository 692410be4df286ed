// The audio converter, used as capture uses it.

#include <AudioToolbox/AudioConverter.h>

#include <cstdio>
#include <cstdlib>

#include "Sound.h"

namespace {

constexpr AudioStreamBasicDescription HostFormat{44100, kAudioFormatLinearPCM, 12, 4, 1, 4, 2, 16, 0};
constexpr AudioStreamBasicDescription PlanarFormat{44100, kAudioFormatLinearPCM, 41, 4, 1, 4, 2, 32, 0};

AudioStreamBasicDescription describe(const bench::SoundFormat& format) {
  const auto bytes = static_cast<UInt32>(format.bytesPerFrame());
  const auto type = format.sample == bench::Sample::Float ? kAudioFormatFlagIsFloat : kAudioFormatFlagIsSignedInteger;
  return {format.rate,
          kAudioFormatLinearPCM,
          static_cast<AudioFormatFlags>(type | kAudioFormatFlagIsPacked),
          bytes,
          1,
          bytes,
          format.channels,
          8 * bytes / format.channels,
          0};
}

constexpr OSStatus NoInputYet = 1;

class Converter {
 public:
  explicit Converter(const AudioStreamBasicDescription& source) : _source(source), _output(2 * bench::OutputCapacity) {
    if (AudioConverterNew(&source, &HostFormat, &_converter) == noErr) return;
    std::fprintf(stderr, "bench: no converter\n");
    std::exit(1);
  }
  explicit Converter(const bench::SoundFormat& format) : Converter(describe(format)) {}
  Converter() : Converter(PlanarFormat) {}
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  ~Converter() { AudioConverterDispose(_converter); }

  /// All that can be had of a live stream.
  void push(const std::byte* chunk) { fill(chunk, nullptr, bench::OutputCapacity, NoInputYet); }

  /// As the delegate converts a buffer: as many frames as came in, and nothing is carried over.
  void single(const std::byte* chunk) {
    fill(chunk, nullptr, bench::ChunkFrames, noErr);
    AudioConverterReset(_converter);
  }

  void planar(const std::byte* left, const std::byte* right) { fill(left, right, bench::ChunkFrames, NoInputYet); }

 private:
  void fill(const std::byte* chunk, const std::byte* second, std::size_t frames, OSStatus statusAtEnd) {
    _chunk = chunk;
    _second = second;
    _statusAtEnd = statusAtEnd;
    auto packets = static_cast<UInt32>(frames);
    AudioBufferList list{1, {{2, packets * HostFormat.mBytesPerFrame, _output.data()}}};
    AudioConverterFillComplexBuffer(_converter, supply, this, &packets, &list, nullptr);
  }

  static OSStatus supply(AudioConverterRef, UInt32* packets, AudioBufferList* list, AudioStreamPacketDescription**,
                         void* context) {
    Converter& self = *static_cast<Converter*>(context);
    *packets = 0;
    if (!self._chunk) return self._statusAtEnd;
    *packets = bench::ChunkFrames;
    const UInt32 size = bench::ChunkFrames * self._source.mBytesPerFrame;
    AudioBuffer* const buffers = &list->mBuffers[0];
    const UInt32 channels = self._second ? 1 : self._source.mChannelsPerFrame;
    buffers[0] = {channels, size, const_cast<std::byte*>(std::exchange(self._chunk, nullptr))};
    if (self._second) buffers[1] = {channels, size, const_cast<std::byte*>(self._second)};
    return noErr;
  }

  const AudioStreamBasicDescription _source;
  AudioConverterRef _converter = nullptr;
  std::vector<std::int16_t> _output;
  const std::byte* _chunk = nullptr;
  const std::byte* _second = nullptr;
  OSStatus _statusAtEnd = noErr;
};

struct Definitions {
  Definitions() {
    bench::defineStreams<Converter>("ours");
    bench::defineSingleBuffer<Converter>("ours");
    bench::definePlanar<Converter>("ours");
  }
};

const Definitions definitions;

}  // namespace
