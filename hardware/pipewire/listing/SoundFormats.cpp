#include "listing/SoundFormats.h"

#include <spa/param/audio/format-utils.h>
#include <spa/param/format.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "listing/Choice.h"

namespace hardware::pipewire {
namespace {

constexpr std::int32_t LowestRate = 8000;
constexpr std::int32_t HighestRate = 384000;
constexpr std::int32_t DefaultRate = 48000;
constexpr std::array<std::int32_t, 7> UsualRates{32000, 44100, 48000, 88200, 96000, 176400, 192000};

struct SampleType {
  std::uint32_t format;  ///< interleaved, in the machine's order
  std::uint32_t bits;
  bool isFloat = false;
};

/// What holds every sample of the device's own type. The server mixes in 32-bit floating point, which has room for 24.
SampleType sampleTypeFor(std::uint32_t native) {
  switch (native) {
    case SPA_AUDIO_FORMAT_S8:
    case SPA_AUDIO_FORMAT_U8:
    case SPA_AUDIO_FORMAT_ULAW:
    case SPA_AUDIO_FORMAT_ALAW:
    case SPA_AUDIO_FORMAT_S16_LE:
    case SPA_AUDIO_FORMAT_S16_BE:
    case SPA_AUDIO_FORMAT_U16_LE:
    case SPA_AUDIO_FORMAT_U16_BE:
    case SPA_AUDIO_FORMAT_S8P:
    case SPA_AUDIO_FORMAT_U8P:
    case SPA_AUDIO_FORMAT_S16P:
      return {SPA_AUDIO_FORMAT_S16, 16};
    case SPA_AUDIO_FORMAT_S24_LE:
    case SPA_AUDIO_FORMAT_S24_BE:
    case SPA_AUDIO_FORMAT_S24_32_LE:
    case SPA_AUDIO_FORMAT_S24_32_BE:
    case SPA_AUDIO_FORMAT_S24P:
    case SPA_AUDIO_FORMAT_S24_32P:
      return {SPA_AUDIO_FORMAT_S24, 24};
    case SPA_AUDIO_FORMAT_S32_LE:
    case SPA_AUDIO_FORMAT_S32_BE:
    case SPA_AUDIO_FORMAT_S32P:
      return {SPA_AUDIO_FORMAT_S32, 32};
    default:
      return {SPA_AUDIO_FORMAT_F32, 32, true};
  }
}

AudioStreamBasicDescription describe(SampleType type, std::int32_t rate, std::uint32_t channels) {
  const std::uint32_t frameSize = type.bits / 8 * channels;
  const AudioFormatFlags kind = type.isFloat ? kAudioFormatFlagIsFloat : kAudioFormatFlagIsSignedInteger;
  return {static_cast<double>(rate),
          kAudioFormatLinearPCM,
          kind | kAudioFormatFlagIsPacked,
          frameSize,
          1,
          frameSize,
          channels,
          type.bits,
          0};
}

/// An arrangement of loudspeakers that the frameworks know by name, with its channels in that order.
struct Surround {
  AudioChannelLayoutTag layout;
  std::size_t count;
  std::array<std::uint32_t, 6> channels;

  std::span<const std::uint32_t> positions() const { return std::span(channels).first(count); }
};

constexpr std::uint32_t FL = SPA_AUDIO_CHANNEL_FL, FR = SPA_AUDIO_CHANNEL_FR, FC = SPA_AUDIO_CHANNEL_FC,
                        LFE = SPA_AUDIO_CHANNEL_LFE, RL = SPA_AUDIO_CHANNEL_RL, RR = SPA_AUDIO_CHANNEL_RR,
                        SL = SPA_AUDIO_CHANNEL_SL, SR = SPA_AUDIO_CHANNEL_SR;
constexpr std::array Surrounds{Surround{kAudioChannelLayoutTag_MPEG_3_0_A, 3, {FL, FR, FC}},
                               Surround{kAudioChannelLayoutTag_Quadraphonic, 4, {FL, FR, RL, RR}},
                               Surround{kAudioChannelLayoutTag_MPEG_5_0_A, 5, {FL, FR, FC, RL, RR}},
                               Surround{kAudioChannelLayoutTag_MPEG_5_1_A, 6, {FL, FR, FC, LFE, RL, RR}},
                               Surround{kAudioChannelLayoutTag_MPEG_5_1_A, 6, {FL, FR, FC, LFE, SL, SR}}};

const Surround* surroundOf(std::span<const std::uint32_t> positions) {
  for (const Surround& surround : Surrounds) {
    const auto known = surround.positions();
    if (std::is_permutation(positions.begin(), positions.end(), known.begin(), known.end())) return &surround;
  }
  return nullptr;
}

std::vector<std::int32_t> rates(const Choice<std::int32_t>& offered) {
  std::vector<std::int32_t> found;
  const auto add = [&found](std::int32_t rate) {
    const bool isNew = std::find(found.begin(), found.end(), rate) == found.end();
    if (rate >= LowestRate && rate <= HighestRate && isNew) found.push_back(rate);
  };
  if (offered.isEmpty()) {
    add(DefaultRate);
  } else if (!offered.isRange) {
    for (const std::int32_t rate : offered.values) add(rate);
  } else {
    add(offered.preferred());
    for (const std::int32_t rate : UsualRates) {
      if (rate >= offered.lowest() && rate <= offered.highest()) add(rate);
    }
  }
  return found;
}

std::uint32_t channelCount(const Choice<std::int32_t>& offered) {
  if (offered.isEmpty()) return 2;
  return static_cast<std::uint32_t>(std::clamp<std::int32_t>(offered.preferred(), 1, SPA_AUDIO_MAX_CHANNELS));
}

/// Where each channel belongs; the usual place where the server does not say.
std::vector<std::uint32_t> positionsOf(const spa_pod* offer, std::uint32_t channels) {
  std::vector<std::uint32_t> positions(channels, SPA_AUDIO_CHANNEL_UNKNOWN);
  const spa_pod_prop* property = spa_pod_find_prop(offer, nullptr, SPA_FORMAT_AUDIO_position);
  // The library copies as many bytes of each element as the array says it has.
  const bool isStated = property && spa_pod_is_array(&property->value) &&
                        SPA_POD_ARRAY_VALUE_SIZE(&property->value) == sizeof(std::uint32_t) &&
                        spa_pod_copy_array(&property->value, SPA_TYPE_Id, positions.data(), channels) == channels;
  if (isStated && positions.front() != SPA_AUDIO_CHANNEL_UNKNOWN) return positions;
  if (channels == 1) return {SPA_AUDIO_CHANNEL_MONO};
  if (channels == 2) return {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR};
  for (std::uint32_t i = 0; i < channels; ++i) positions[i] = SPA_AUDIO_CHANNEL_AUX0 + i;
  return positions;
}

/// The lines of one rate.
void addFormats(SampleType type, std::int32_t rate, std::vector<std::uint32_t> positions,
                std::vector<SoundFormat>& formats) {
  const auto channels = static_cast<std::uint32_t>(positions.size());
  SoundFormat line;
  line.sampleFormat = type.format;
  const Surround* surround = surroundOf(positions);
  if (surround) positions.assign(surround->positions().begin(), surround->positions().end());
  line.positions = std::move(positions);
  if (channels <= 2 || surround) {
    line.format.stream = describe(type, rate, channels);
    line.format.layout = channels == 1 ? kAudioChannelLayoutTag_Mono : kAudioChannelLayoutTag_Stereo;
    if (surround) line.format.layout = surround->layout;
    return formats.push_back(std::move(line));
  }
  for (std::uint32_t first = 0; first < channels; first += 2) {
    const bool isPair = first + 1 < channels;
    line.format.firstInput = first;
    line.format.stream = describe(type, rate, isPair ? 2 : 1);
    line.format.layout = isPair ? kAudioChannelLayoutTag_Stereo : kAudioChannelLayoutTag_Mono;
    formats.push_back(line);
  }
}

}  // namespace

std::vector<SoundFormat> readSoundFormats(std::span<const spa_pod* const> offered) {
  // The first offer is the device's usual one; the others are the same in other arrangements of channels.
  for (const spa_pod* offer : offered) {
    std::uint32_t media = 0, subtype = 0;
    if (spa_format_parse(offer, &media, &subtype) < 0 || media != SPA_MEDIA_TYPE_audio) continue;
    if (subtype != SPA_MEDIA_SUBTYPE_raw) continue;
    const auto native = choiceOf<std::uint32_t>(offer, SPA_FORMAT_AUDIO_format, SPA_TYPE_Id);
    const SampleType type =
        sampleTypeFor(native.isEmpty() ? static_cast<std::uint32_t>(SPA_AUDIO_FORMAT_F32) : native.preferred());
    const auto positions =
        positionsOf(offer, channelCount(choiceOf<std::int32_t>(offer, SPA_FORMAT_AUDIO_channels, SPA_TYPE_Int)));
    std::vector<SoundFormat> formats;
    for (const std::int32_t rate : rates(choiceOf<std::int32_t>(offer, SPA_FORMAT_AUDIO_rate, SPA_TYPE_Int)))
      addFormats(type, rate, positions, formats);
    if (!formats.empty()) return formats;
  }
  return {};
}

const spa_pod* requestFor(const SoundFormat& format, spa_pod_builder& builder) {
  spa_audio_info_raw info{};
  info.format = static_cast<spa_audio_format>(format.sampleFormat);
  info.rate = static_cast<std::uint32_t>(std::lround(format.format.stream.mSampleRate));
  info.channels = format.streamChannels();
  std::copy(format.positions.begin(), format.positions.end(), info.position);
  return spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info);
}

}  // namespace hardware::pipewire
