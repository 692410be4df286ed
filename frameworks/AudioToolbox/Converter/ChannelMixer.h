#pragma once

// Which input channel reaches which output channel, and how loud.

#include <AudioToolbox/Converter/SampleReader.h>

#include <memory>

namespace AudioConversion {

/// The most frames that a block of working values has, wherever blocks are handed on.
inline constexpr size_t kBlockFrames = 1024;

/// Input channels are mixed into lanes, the channels that are worked on; each output channel then takes one lane or
/// silence.
struct ChannelPlan {
  static constexpr int kSilent = -1;

  unsigned lanes = 0;
  bool mixes = false;                                                 ///< false: lane n is input channel n
  std::array<std::array<double, kMaxChannels>, kMaxChannels> gain{};  ///< [lane][input channel]
  std::array<int, kMaxChannels> laneOfOutput{};                       ///< kSilent or a lane
};

/// Equal counts map one to one; one channel goes to all outputs; two go to one as their mean; more than two go to two
/// by the layout, and without a known one the first two are taken; otherwise what is missing is silent and what is too
/// much is left out.
///
/// In the downmix the side's own channel counts 1, centre and surrounds -3 dB, a single rear surround -6 dB on each
/// side, and the low-frequency channel is left out. The sum is scaled so that input within full scale stays within it.
ChannelPlan makeChannelPlan(unsigned inputChannels, unsigned outputChannels,
                            AudioChannelLayoutTag inputLayout) noexcept;

/// Reads samples and mixes them into lanes. One thread at a time; allocates only when it is made.
template <typename Work>
class ChannelMixer {
 public:
  ChannelMixer(const PCMFormat& source, const ChannelPlan& plan);

  /// At most kBlockFrames frames; `out` has a plane for each lane.
  void read(const InputPlanes& in, size_t frames, Work* const* out);

 private:
  ChannelPlan _plan;
  unsigned _inputChannels;
  SampleReader<Work> _reader;
  std::unique_ptr<Work[]> _channel;
};

}  // namespace AudioConversion
