#include <AudioToolbox/Converter/SampleWriter.h>

namespace AudioConversion {
namespace {

template <typename Work, unsigned Bytes, bool BigEndian>
void writeIntegers(const IntegerPlace& place, const Work* in, size_t frames, std::byte* out, size_t stride) {
  const IntegerPlace local = place;  // a copy that the stores below cannot change
  for (size_t i = 0; i < frames; ++i) {
    storeInteger<Bytes, BigEndian>(local, out + i * stride, integerFromWork<Work>(in[i], local.bits));
  }
}

template <typename Work, typename Real, bool BigEndian>
void writeReals(const IntegerPlace&, const Work* in, size_t frames, std::byte* out, size_t stride) {
  for (size_t i = 0; i < frames; ++i) storeReal<Real, BigEndian>(out + i * stride, static_cast<Real>(in[i]));
}

}  // namespace

template <typename Work>
typename SampleWriter<Work>::WriteStrided SampleWriter<Work>::writeStridedFor(const SampleEncoding& sample) noexcept {
  const bool big = sample.bigEndian;
  if constexpr (!std::is_same_v<Work, int32_t>) {
    if (sample.isFloat() && sample.bits == 32) {
      return big ? &writeReals<Work, float, true> : &writeReals<Work, float, false>;
    }
    if (sample.isFloat()) return big ? &writeReals<Work, double, true> : &writeReals<Work, double, false>;
  }
  switch (sample.containerBytes) {
    case 1:
      return &writeIntegers<Work, 1, false>;
    case 2:
      return big ? &writeIntegers<Work, 2, true> : &writeIntegers<Work, 2, false>;
    case 3:
      return big ? &writeIntegers<Work, 3, true> : &writeIntegers<Work, 3, false>;
    default:
      return big ? &writeIntegers<Work, 4, true> : &writeIntegers<Work, 4, false>;
  }
}

template <typename Work>
SampleWriter<Work>::SampleWriter(const PCMFormat& format, InstructionSet set)
    : _format(format),
      _place(format.sample.isFloat() ? IntegerPlace() : IntegerPlace(format.sample)),
      _writeStrided(writeStridedFor(format.sample)),
      _kernels(pcmKernels<Work>(set, format.sample)) {}

template <typename Work>
void SampleWriter<Work>::write(const Work* const* in, size_t frames, const OutputPlanes& out) const {
  if (_kernels.writeStereo && _format.interleaved && _format.channels == 2) {
    _kernels.writeStereo(in[0], in[1], frames, out.channel[0]);
    return;
  }
  const bool contiguous = _kernels.writeRun && out.stride == _format.sample.containerBytes;
  for (unsigned c = 0; c < _format.channels; ++c) {
    if (contiguous) {
      _kernels.writeRun(in[c], frames, out.channel[c]);
    } else {
      _writeStrided(_place, in[c], frames, out.channel[c], out.stride);
    }
  }
}

template class SampleWriter<int32_t>;
template class SampleWriter<float>;
template class SampleWriter<double>;

}  // namespace AudioConversion
