// libsoxr, high quality, without dither, as the others have none. It does not change the number of channels.

#include <soxr.h>

#include "Sound.h"

namespace {

soxr_datatype_t inputType(bench::Sample sample) {
  switch (sample) {
    case bench::Sample::Int16:
      return SOXR_INT16_I;
    case bench::Sample::Int32:
      return SOXR_INT32_I;
    case bench::Sample::Float:
      break;
  }
  return SOXR_FLOAT32_I;
}

class Converter {
 public:
  explicit Converter(const bench::SoundFormat& format) : _output(2 * bench::OutputCapacity) {
    soxr_io_spec_t formats = soxr_io_spec(inputType(format.sample), SOXR_INT16_I);
    formats.flags |= SOXR_NO_DITHER;
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    const soxr_runtime_spec_t oneThread = soxr_runtime_spec(1);
    _soxr = soxr_create(format.rate, bench::OutputRate, format.channels, nullptr, &formats, &quality, &oneThread);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  ~Converter() { soxr_delete(_soxr); }

  void push(const std::byte* chunk) {
    std::size_t taken = 0;
    std::size_t given = 0;
    soxr_process(_soxr, chunk, bench::ChunkFrames, &taken, _output.data(), bench::OutputCapacity, &given);
  }

  void single(const std::byte* chunk) {
    push(chunk);
    std::size_t given = 0;
    soxr_process(_soxr, nullptr, 0, nullptr, _output.data(), bench::OutputCapacity, &given);
    soxr_clear(_soxr);
  }

 private:
  std::vector<std::int16_t> _output;
  soxr_t _soxr;
};

struct Definitions {
  Definitions() {
    bench::defineStreams<Converter>("soxr HQ");
    bench::defineSingleBuffer<Converter>("soxr HQ");
  }
};

const Definitions definitions;

}  // namespace
