// The audio converter between formats that make no sense, fed with lists of the wrong shape and samples that are none.

#include <AudioToolbox/AudioConverter.h>

#include <algorithm>
#include <array>
#include <vector>

#include "FuzzInput.h"

namespace {

constexpr UInt32 MostBuffers = 9;
struct BufferList : AudioBufferList {
  std::array<AudioBuffer, MostBuffers - 1> others;
};

/// Buffers of their own, mostly as the format asks.
class Buffers {
 public:
  Buffers(fuzz::Input& input, const AudioStreamBasicDescription& stream, UInt32 frames) {
    const bool isPlanar = stream.mFormatFlags & kAudioFormatFlagIsNonInterleaved;
    const bool isWrong = input.ConsumeIntegralInRange(0, 7) == 0;
    list.mNumberBuffers = isWrong ? input.ConsumeIntegralInRange<UInt32>(0, MostBuffers)
                                  : std::min(isPlanar ? stream.mChannelsPerFrame : 1, MostBuffers);
    const UInt32 size = isWrong ? input.ConsumeIntegral<std::uint8_t>() : frames * std::min(stream.mBytesPerFrame, 64u);
    for (UInt32 i = 0; i < list.mNumberBuffers; ++i) {
      _memory[i] = input.ConsumeBytes<std::uint8_t>(size);
      _memory[i].resize(size, 0x7F);
      list.mBuffers[i] = {isPlanar ? 1 : stream.mChannelsPerFrame, size, _memory[i].data()};
    }
  }

  BufferList list{};

 private:
  std::array<std::vector<std::uint8_t>, MostBuffers> _memory;
};

struct Feed {
  fuzz::Input& input;
  const AudioStreamBasicDescription& stream;
  std::vector<Buffers> pieces;
};

OSStatus supply(AudioConverterRef, UInt32* count, AudioBufferList* list, AudioStreamPacketDescription**,
                void* context) {
  auto& [input, stream, pieces] = *static_cast<Feed*>(context);
  *count = input.ConsumeIntegral<std::uint8_t>();
  if (input.ConsumeIntegralInRange(0, 15) == 0) return -1;
  const auto& piece = pieces.emplace_back(input, stream, *count).list;
  list->mNumberBuffers = piece.mNumberBuffers;
  std::copy_n(piece.mBuffers, piece.mNumberBuffers, list->mBuffers);
  if (!input.isLeft()) *count = 0;
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto source = input.stream();
  const auto destination = input.stream();
  AudioConverterRef converter = nullptr;
  const OSStatus status = AudioConverterNew(&source, &destination, &converter);
  fuzz::require((status == 0) == (converter != nullptr));
  if (!converter) return 0;

  const AudioChannelLayout layout{static_cast<AudioChannelLayoutTag>(input.number()), 0,
                                  input.ConsumeIntegral<UInt32>()};
  AudioConverterSetProperty(converter, kAudioConverterInputChannelLayout,
                            input.ConsumeIntegralInRange<UInt32>(0, sizeof layout), &layout);
  Feed feed{input, source, {}};
  for (int calls = 0; calls < 16 && input.isLeft(); ++calls) {
    UInt32 frames = input.ConsumeIntegral<std::uint8_t>();
    const UInt32 asked = frames;
    Buffers output(input, destination, frames);
    AudioConverterFillComplexBuffer(converter, supply, &feed, &frames, &output.list, nullptr);
    fuzz::require(frames <= asked);
    if (input.ConsumeIntegralInRange(0, 7) == 0) AudioConverterReset(converter);
  }
  AudioConverterDispose(converter);
  return 0;
}
