#include "AudioSource.h"

#include <cmath>
#include <utility>
#include <vector>

#include "Tone.h"
#include "WAVReader.h"

namespace hardware::simulated {
namespace {

class ToneSound final : public AudioSource {
 public:
  explicit ToneSound(const ToneSource& description) : _tone(description.frequency, description.levelInDecibels) {}

  std::size_t render(std::span<double> samples, std::uint32_t channels, double sampleRate) override {
    if (_sampleRate != sampleRate) {
      // The tone goes on from where it is in time.
      if (_sampleRate != 0) {
        _position = static_cast<std::uint64_t>(std::llround(static_cast<double>(_position) / _sampleRate * sampleRate));
      }
      _sampleRate = sampleRate;
    }
    const std::size_t frames = samples.size() / channels;
    _run.resize(frames);
    _tone.samplesFrom(_position, sampleRate, _run);
    _position += frames;
    for (std::size_t i = 0; i < frames; ++i) {
      for (std::uint32_t channel = 0; channel < channels; ++channel) samples[i * channels + channel] = _run[i];
    }
    return frames;
  }

  bool hasEnded() const override { return false; }

 private:
  Tone _tone;
  std::uint64_t _position = 0;
  double _sampleRate = 0;
  std::vector<double> _run;
};

class SoundClip final : public AudioSource {
 public:
  SoundClip(WAVReader reader, const MediaSource& media) : _reader(std::move(reader)), _media(media) {}

  std::size_t render(std::span<double> samples, std::uint32_t channels, double) override {
    const std::size_t wanted = samples.size() / channels;
    const std::uint32_t clipChannels = _reader.channels();
    _clip.resize(wanted * clipChannels);
    const std::size_t count = fill(wanted);

    for (std::size_t i = 0; i < count; ++i) {
      for (std::uint32_t channel = 0; channel < channels; ++channel) {
        const std::uint32_t from = clipChannels == 1 ? 0 : channel;
        samples[i * channels + channel] = from < clipChannels ? _clip[i * clipChannels + from] : 0;
      }
    }
    return count;
  }

  bool hasEnded() const override { return _hasEnded; }

 private:
  // Reads into _clip across the seams of a loop.
  std::size_t fill(std::size_t wanted) {
    std::size_t count = 0;
    while (count < wanted && !_hasEnded) {
      const std::size_t read = _reader.read(_position, std::span(_clip).subspan(count * _reader.channels()));
      count += read;
      _position += read;
      const bool isShort = read == 0;  // the file has shrunk
      if (!isShort && _position < _reader.frameCount()) continue;
      if (_reader.isCutOff() && !std::exchange(_hasToldCutOff, true)) tellCutOff(_media.path);
      _hasEnded = !_media.isLooped || (isShort && _position == 0);
      _position = 0;
    }
    return count;
  }

  WAVReader _reader;
  MediaSource _media;
  bool _hasToldCutOff = false;
  bool _hasEnded = false;
  std::uint64_t _position = 0;
  std::vector<double> _clip;
};

class NoSound final : public AudioSource {
 public:
  std::size_t render(std::span<double>, std::uint32_t, double) override { return 0; }
  bool hasEnded() const override { return true; }
};

}  // namespace

std::unique_ptr<AudioSource> makeAudioSource(const SoundSource& description) {
  if (const auto* tone = std::get_if<ToneSource>(&description)) return std::make_unique<ToneSound>(*tone);
  const auto& media = std::get<MediaSource>(description);
  auto reader = WAVReader::open(media.path);
  if (!reader) return std::make_unique<NoSound>();
  return std::make_unique<SoundClip>(std::move(*reader), media);
}

}  // namespace hardware::simulated
