// libswresample as it comes, without options.

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include "Sound.h"

namespace {

AVSampleFormat inputType(bench::Sample sample) {
  switch (sample) {
    case bench::Sample::Int16:
      return AV_SAMPLE_FMT_S16;
    case bench::Sample::Int32:
      return AV_SAMPLE_FMT_S32;
    case bench::Sample::Float:
      break;
  }
  return AV_SAMPLE_FMT_FLT;
}

class Converter {
 public:
  Converter(AVSampleFormat type, double rate, unsigned channels) : _output(2 * bench::OutputCapacity) {
    AVChannelLayout layout;
    av_channel_layout_default(&layout, static_cast<int>(channels));
    swr_alloc_set_opts2(&_context, &layout, AV_SAMPLE_FMT_S16, static_cast<int>(bench::OutputRate), &layout, type,
                        static_cast<int>(rate), 0, nullptr);
    swr_init(_context);
  }
  explicit Converter(const bench::SoundFormat& format)
      : Converter(inputType(format.sample), format.rate, format.channels) {}
  Converter() : Converter(AV_SAMPLE_FMT_FLTP, bench::OutputRate, 2) {}
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  ~Converter() { swr_free(&_context); }

  void push(const std::byte* chunk) { convert(chunk, nullptr, bench::ChunkFrames); }

  void single(const std::byte* chunk) {
    push(chunk);
    auto* output = reinterpret_cast<std::uint8_t*>(_output.data());
    swr_convert(_context, &output, bench::OutputCapacity, nullptr, 0);
    swr_init(_context);
  }

  void planar(const std::byte* left, const std::byte* right) { convert(left, right, bench::ChunkFrames); }

 private:
  void convert(const std::byte* first, const std::byte* second, int frames) {
    const std::uint8_t* input[] = {reinterpret_cast<const std::uint8_t*>(first),
                                   reinterpret_cast<const std::uint8_t*>(second)};
    auto* output = reinterpret_cast<std::uint8_t*>(_output.data());
    swr_convert(_context, &output, bench::OutputCapacity, input, frames);
  }

  std::vector<std::int16_t> _output;
  SwrContext* _context = nullptr;
};

struct Definitions {
  Definitions() {
    bench::defineStreams<Converter>("swresample");
    bench::defineSingleBuffer<Converter>("swresample");
    bench::definePlanar<Converter>("swresample");
  }
};

const Definitions definitions;

}  // namespace
