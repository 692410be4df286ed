#include <AudioToolbox/Converter/ChannelMixer.h>

#include <algorithm>

namespace AudioConversion {
namespace {

constexpr double Minus3dB = 0.70710678118654752;
constexpr double Minus6dB = 0.5;

// What one input channel adds to each side.
struct Sides {
  double left;
  double right;
};
constexpr Sides Left{1, 0};
constexpr Sides Right{0, 1};
constexpr Sides Centre{Minus3dB, Minus3dB};
constexpr Sides LowFrequency{0, 0};
constexpr Sides LeftSurround{Minus3dB, 0};
constexpr Sides RightSurround{0, Minus3dB};
constexpr Sides RearSurround{Minus6dB, Minus6dB};

struct Downmix {
  AudioChannelLayoutTag layout;
  std::array<Sides, kMaxChannels> channels;
};

constexpr Downmix Downmixes[] = {
    {kAudioChannelLayoutTag_Quadraphonic, {{Left, Right, LeftSurround, RightSurround}}},
    {kAudioChannelLayoutTag_MPEG_3_0_A, {{Left, Right, Centre}}},
    {kAudioChannelLayoutTag_MPEG_4_0_A, {{Left, Right, Centre, RearSurround}}},
    {kAudioChannelLayoutTag_MPEG_5_0_A, {{Left, Right, Centre, LeftSurround, RightSurround}}},
    {kAudioChannelLayoutTag_MPEG_5_1_A, {{Left, Right, Centre, LowFrequency, LeftSurround, RightSurround}}},
    {kAudioChannelLayoutTag_MPEG_6_1_A,
     {{Left, Right, Centre, LowFrequency, LeftSurround, RightSurround, RearSurround}}},
    // The last two are the channels between the sides and the centre.
    {kAudioChannelLayoutTag_MPEG_7_1_A,
     {{Left, Right, Centre, LowFrequency, LeftSurround, RightSurround, Left, Right}}},
};

bool mixDown(ChannelPlan& plan, unsigned inputChannels, AudioChannelLayoutTag layout) noexcept {
  const auto* downmix = std::find_if(std::begin(Downmixes), std::end(Downmixes),
                                     [layout](const Downmix& candidate) { return candidate.layout == layout; });
  if (downmix == std::end(Downmixes) || (layout & 0xFFFF) != inputChannels) return false;

  double sum = 0;  // the same on both sides, as all layouts are symmetrical
  for (const Sides& channel : downmix->channels) sum += channel.left;
  for (unsigned c = 0; c < inputChannels; ++c) {
    plan.gain[0][c] = downmix->channels[c].left / sum;
    plan.gain[1][c] = downmix->channels[c].right / sum;
  }
  plan.mixes = true;
  return true;
}

template <typename Work>
void addScaled(const Work* in, size_t frames, Work gain, Work* sum) {
  for (size_t i = 0; i < frames; ++i) sum[i] += in[i] * gain;
}

}  // namespace

ChannelPlan makeChannelPlan(unsigned inputChannels, unsigned outputChannels,
                            AudioChannelLayoutTag inputLayout) noexcept {
  ChannelPlan plan;
  plan.lanes = std::min(inputChannels, outputChannels);
  for (unsigned c = 0; c < kMaxChannels; ++c) {
    plan.laneOfOutput[c] = c < plan.lanes ? static_cast<int>(c) : ChannelPlan::kSilent;
  }
  if (inputChannels == 1) plan.laneOfOutput.fill(0);
  if (inputChannels == 2 && outputChannels == 1) {
    plan.gain[0][0] = plan.gain[0][1] = 0.5;
    plan.mixes = true;
  }
  if (inputChannels > 2 && outputChannels == 2) mixDown(plan, inputChannels, inputLayout);
  return plan;
}

template <typename Work>
ChannelMixer<Work>::ChannelMixer(const PCMFormat& source, const ChannelPlan& plan)
    : _plan(plan),
      _inputChannels(source.channels),
      _reader(source),
      _channel(plan.mixes ? std::make_unique<Work[]>(kBlockFrames) : nullptr) {}

template <typename Work>
void ChannelMixer<Work>::read(const InputPlanes& in, size_t frames, Work* const* out) {
  if (!_plan.mixes) {
    _reader.read(in, frames, _plan.lanes, out);
    return;
  }
  for (unsigned lane = 0; lane < _plan.lanes; ++lane) std::fill_n(out[lane], frames, Work{0});
  for (unsigned c = 0; c < _inputChannels; ++c) {
    _reader.readChannel(in, frames, c, _channel.get());
    for (unsigned lane = 0; lane < _plan.lanes; ++lane) {
      const double gain = _plan.gain[lane][c];
      // A channel that is left out must not count at all: 0 times infinity would.
      if (gain != 0) addScaled(_channel.get(), frames, static_cast<Work>(gain), out[lane]);
    }
  }
}

template class ChannelMixer<int32_t>;
template class ChannelMixer<float>;
template class ChannelMixer<double>;

}  // namespace AudioConversion
