#include <AudioToolbox/Converter/ConversionEngine.h>

#include <AudioToolbox/Converter/Resampler.h>
#include <AudioToolbox/Converter/SampleWriter.h>

#include <algorithm>
#include <bit>
#include <cstring>

namespace AudioConversion {
namespace {

// Planes of working values, one for each lane and one of silence, and the planes that the outputs take.
template <typename Work>
class Lanes {
 public:
  using Outputs = std::array<const Work*, kMaxChannels>;

  explicit Lanes(const ChannelPlan& plan) : _plan(plan), _values((plan.lanes + 1) * kBlockFrames) {
    for (unsigned lane = 0; lane < plan.lanes; ++lane) _lanes[lane] = &_values[lane * kBlockFrames];
    _outputs = outputsFrom(_lanes.data());
  }
  Work* const* lanes() noexcept { return _lanes.data(); }
  const Work* const* outputs() const noexcept { return _outputs.data(); }

  // The planes that the outputs take when the lanes are somewhere else.
  template <typename Plane>
  Outputs outputsFrom(Plane* const* lanes) const noexcept {
    Outputs outputs;
    for (unsigned c = 0; c < kMaxChannels; ++c) {
      const int lane = _plan.laneOfOutput[c];
      outputs[c] = lane == ChannelPlan::kSilent ? &_values[_plan.lanes * kBlockFrames]
                                                : reinterpret_cast<const Work*>(lanes[static_cast<unsigned>(lane)]);
    }
    return outputs;
  }

 private:
  ChannelPlan _plan;
  std::vector<Work> _values;
  std::array<Work*, kMaxChannels> _lanes{};
  Outputs _outputs;
};

// Whether a format's samples are working values, one plane for each channel.
template <typename Work>
bool isWork(const PCMFormat& format) noexcept {
  constexpr SampleEncoding WorkInMemory{
      .kind = std::is_integral_v<Work> ? SampleKind::SignedInteger : SampleKind::Float,
      .bits = 8 * sizeof(Work),
      .containerBytes = sizeof(Work),
      .bigEndian = std::endian::native == std::endian::big};
  return format.sample == WorkInMemory && (format.channels == 1 || !format.interleaved);
}

template <typename Work>
bool isAligned(const InputPlanes& planes) noexcept {
  return std::all_of(planes.channel.begin(), planes.channel.end(), [](const std::byte* samples) {
    return reinterpret_cast<uintptr_t>(samples) % alignof(Work) == 0;
  });
}

class CopyEngine final : public ConversionEngine {
 public:
  explicit CopyEngine(const PCMFormat& format) : _format(format) {}

  size_t produce(PendingInput& input, const OutputPlanes& out, size_t frames) override {
    const size_t count = std::min(frames, input.frames);
    if (count == 0) return 0;
    for (unsigned b = 0; b < _format.bufferCount(); ++b) {
      std::memcpy(out.channel[b], input.planes.channel[b], count * _format.bytesPerFrame());
    }
    input.consume(count);
    return count;
  }
  size_t inputWanted(size_t frames) const override { return frames; }
  void finish() override {}
  void reset() override {}

 private:
  PCMFormat _format;
};

template <typename Work>
class SampleEngine final : public ConversionEngine {
 public:
  SampleEngine(const PCMFormat& source, const PCMFormat& destination, const ChannelPlan& plan)
      : _mixer(source, plan), _writer(destination), _lanes(plan) {
    const bool noneIsSilent = source.channels == 1 || source.channels >= destination.channels;
    _canSkipReading = !plan.mixes && noneIsSilent && isWork<Work>(source);
  }

  size_t produce(PendingInput& input, const OutputPlanes& out, size_t frames) override {
    const size_t total = std::min(frames, input.frames);
    if (total == 0) return 0;
    if (_canSkipReading && isAligned<Work>(input.planes)) {
      // Without a copy into lanes, floats that lie in planes become integers in half the time.
      _writer.write(_lanes.outputsFrom(input.planes.channel.data()).data(), total, out);
      input.consume(total);
      return total;
    }
    for (size_t done = 0; done < total;) {
      const size_t count = std::min(total - done, kBlockFrames);
      _mixer.read(input.planes, count, _lanes.lanes());
      input.consume(count);
      _writer.write(_lanes.outputs(), count, out.advancedBy(done));
      done += count;
    }
    return total;
  }
  size_t inputWanted(size_t frames) const override { return frames; }
  void finish() override {}
  void reset() override {}

 private:
  ChannelMixer<Work> _mixer;
  SampleWriter<Work> _writer;
  Lanes<Work> _lanes;
  bool _canSkipReading;
};

template <typename Work>
class RateEngine final : public ConversionEngine {
 public:
  RateEngine(const PCMFormat& source, const PCMFormat& destination, const ChannelPlan& plan)
      : _mixer(source, plan),
        _resampler(RateRatio::between(source.sampleRate, destination.sampleRate), plan.lanes),
        _writer(destination),
        _lanes(plan),
        _kernels(filterKernels<Work>(bestInstructionSet())),
        _laneCount(plan.lanes),
        _mayBeNonFinite(source.sample.isFloat()) {}

  size_t produce(PendingInput& input, const OutputPlanes& out, size_t frames) override {
    size_t done = 0;
    while (done < frames) {
      const size_t count = _resampler.produce(_lanes.lanes(), std::min(frames - done, kBlockFrames));
      if (count > 0) {
        _writer.write(_lanes.outputs(), count, out.advancedBy(done));
        done += count;
      } else if (input.frames > 0) {
        feed(input);
      } else {
        break;
      }
    }
    return done;
  }
  size_t inputWanted(size_t frames) const override { return _resampler.inputWanted(frames); }
  void finish() override { _resampler.finish(); }
  void reset() override { _resampler.reset(); }

 private:
  static_assert(Resampler<Work>::kLongestAppend == kBlockFrames && Resampler<Work>::kMostChannels == kMaxChannels);

  void feed(PendingInput& input) {
    const size_t count = _resampler.makeRoom(std::min(input.frames, kBlockFrames));
    std::array<Work*, kMaxChannels> tails{};
    for (unsigned lane = 0; lane < _laneCount; ++lane) tails[lane] = _resampler.tail(lane);
    _mixer.read(input.planes, count, tails.data());
    input.consume(count);
    if (_mayBeNonFinite) {
      // They would spread over all outputs that the filter reaches them from.
      for (unsigned lane = 0; lane < _laneCount; ++lane) _kernels.silenceNonFinite(tails[lane], count);
    }
    _resampler.append(count);
  }

  ChannelMixer<Work> _mixer;
  Resampler<Work> _resampler;
  SampleWriter<Work> _writer;
  Lanes<Work> _lanes;
  const FilterKernels<Work>& _kernels;
  unsigned _laneCount;
  bool _mayBeNonFinite;
};

template <typename Work>
std::unique_ptr<ConversionEngine> makeRealEngine(const PCMFormat& source, const PCMFormat& destination,
                                                 const ChannelPlan& plan) {
  if (source.sampleRate == destination.sampleRate) {
    return std::make_unique<SampleEngine<Work>>(source, destination, plan);
  }
  return std::make_unique<RateEngine<Work>>(source, destination, plan);
}

/// What a conversion's arithmetic is done in.
enum class WorkingType { Integer, Single, Double };

WorkingType workingTypeFor(const PCMFormat& source, const PCMFormat& destination, const ChannelPlan& plan) noexcept {
  const SampleEncoding& in = source.sample;
  const SampleEncoding& out = destination.sample;
  if (source.sampleRate != destination.sampleRate || plan.mixes) {
    // Single precision adds noise near -140 dB: nothing beside 16 bits, too much beside 24 when both ends have them.
    const bool singleIsEnough = in.precision() <= 16 || out.precision() <= 16 || (out.isFloat() && out.bits == 32);
    return singleIsEnough ? WorkingType::Single : WorkingType::Double;
  }
  // Sample by sample the result is exact, or rounded once.
  if (!in.isFloat() && !out.isFloat()) return WorkingType::Integer;
  if (in.precision() <= 24 || (out.isFloat() && out.bits == 32)) return WorkingType::Single;
  return WorkingType::Double;
}

}  // namespace

std::unique_ptr<ConversionEngine> makeEngine(const PCMFormat& source, const PCMFormat& destination,
                                             AudioChannelLayoutTag inputLayout) {
  if (source == destination) return std::make_unique<CopyEngine>(source);
  const ChannelPlan plan = makeChannelPlan(source.channels, destination.channels, inputLayout);
  switch (workingTypeFor(source, destination, plan)) {
    case WorkingType::Integer:
      return std::make_unique<SampleEngine<int32_t>>(source, destination, plan);
    case WorkingType::Single:
      return makeRealEngine<float>(source, destination, plan);
    default:
      return makeRealEngine<double>(source, destination, plan);
  }
}

}  // namespace AudioConversion
