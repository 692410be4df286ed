// libsamplerate with its medium sinc filter. It works on floats and does not change the number of channels.

#include <samplerate.h>

#include "Sound.h"

namespace {

class Converter {
 public:
  explicit Converter(const bench::SoundFormat& format)
      : _format(format),
        _input(bench::ChunkFrames * format.channels),
        _floats(2 * bench::OutputCapacity),
        _output(2 * bench::OutputCapacity),
        _state(src_new(SRC_SINC_MEDIUM_QUALITY, static_cast<int>(format.channels), nullptr)) {}
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  ~Converter() { src_delete(_state); }

  void push(const std::byte* chunk) { process(chunk, false); }

  void single(const std::byte* chunk) {
    process(chunk, true);
    src_reset(_state);
  }

 private:
  void process(const std::byte* chunk, bool isLast) {
    SRC_DATA data{};
    data.data_in = floatsOf(chunk);
    data.input_frames = bench::ChunkFrames;
    data.data_out = _floats.data();
    data.output_frames = bench::OutputCapacity;
    data.end_of_input = isLast;
    data.src_ratio = bench::OutputRate / _format.rate;
    src_process(_state, &data);
    src_float_to_short_array(_floats.data(), _output.data(),
                             static_cast<int>(data.output_frames_gen) * static_cast<int>(_format.channels));
  }

  const float* floatsOf(const std::byte* chunk) {
    const auto count = static_cast<int>(_input.size());
    switch (_format.sample) {
      case bench::Sample::Int16:
        src_short_to_float_array(reinterpret_cast<const short*>(chunk), _input.data(), count);
        return _input.data();
      case bench::Sample::Int32:
        src_int_to_float_array(reinterpret_cast<const int*>(chunk), _input.data(), count);
        return _input.data();
      case bench::Sample::Float:
        break;
    }
    return reinterpret_cast<const float*>(chunk);
  }

  const bench::SoundFormat _format;
  std::vector<float> _input;
  std::vector<float> _floats;
  std::vector<short> _output;
  SRC_STATE* _state;
};

struct Definitions {
  Definitions() {
    bench::defineStreams<Converter>("samplerate medium");
    bench::defineSingleBuffer<Converter>("samplerate medium");
  }
};

const Definitions definitions;

}  // namespace
