#include <AudioToolbox/Converter/SampleReader.h>

namespace AudioConversion {
namespace {

template <typename Work, unsigned Bytes, bool BigEndian>
void readIntegers(const IntegerPlace& place, const std::byte* in, size_t stride, size_t frames, Work* out) {
  const IntegerPlace local = place;  // a copy that the stores below cannot change
  for (size_t i = 0; i < frames; ++i) {
    out[i] = workFromInteger<Work>(loadInteger<Bytes, BigEndian>(local, in + i * stride));
  }
}

template <typename Work, typename Real, bool BigEndian>
void readReals(const IntegerPlace&, const std::byte* in, size_t stride, size_t frames, Work* out) {
  for (size_t i = 0; i < frames; ++i) out[i] = static_cast<Work>(loadReal<Real, BigEndian>(in + i * stride));
}

}  // namespace

template <typename Work>
typename SampleReader<Work>::ReadStrided SampleReader<Work>::readStridedFor(const SampleEncoding& sample) noexcept {
  const bool big = sample.bigEndian;
  if constexpr (!std::is_same_v<Work, int32_t>) {
    if (sample.isFloat() && sample.bits == 32)
      return big ? &readReals<Work, float, true> : &readReals<Work, float, false>;
    if (sample.isFloat()) return big ? &readReals<Work, double, true> : &readReals<Work, double, false>;
  }
  switch (sample.containerBytes) {
    case 1:
      return &readIntegers<Work, 1, false>;
    case 2:
      return big ? &readIntegers<Work, 2, true> : &readIntegers<Work, 2, false>;
    case 3:
      return big ? &readIntegers<Work, 3, true> : &readIntegers<Work, 3, false>;
    default:
      return big ? &readIntegers<Work, 4, true> : &readIntegers<Work, 4, false>;
  }
}

template <typename Work>
SampleReader<Work>::SampleReader(const PCMFormat& format, InstructionSet set)
    : _format(format),
      _place(format.sample.isFloat() ? IntegerPlace() : IntegerPlace(format.sample)),
      _readStrided(readStridedFor(format.sample)),
      _kernels(pcmKernels<Work>(set, format.sample)) {}

template <typename Work>
void SampleReader<Work>::read(const InputPlanes& in, size_t frames, unsigned channels, Work* const* out) const {
  if (_kernels.readStereo && _format.interleaved && _format.channels == 2 && channels == 2) {
    _kernels.readStereo(in.channel[0], frames, out[0], out[1]);
    return;
  }
  for (unsigned c = 0; c < channels; ++c) readChannel(in, frames, c, out[c]);
}

template <typename Work>
void SampleReader<Work>::readChannel(const InputPlanes& in, size_t frames, unsigned channel, Work* out) const {
  if (_kernels.readRun && in.stride == _format.sample.containerBytes) {
    _kernels.readRun(in.channel[channel], frames, out);
  } else {
    _readStrided(_place, in.channel[channel], in.stride, frames, out);
  }
}

template class SampleReader<int32_t>;
template class SampleReader<float>;
template class SampleReader<double>;

}  // namespace AudioConversion
