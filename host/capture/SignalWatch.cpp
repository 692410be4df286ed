#include "capture/SignalWatch.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "common/Failure.h"

namespace brvhost {

namespace {

constexpr double Silence = -60;                      // dB
constexpr double BlackLuma = 24;                     // of which 16 is black
constexpr std::size_t StepDown = 8, StepRight = 16;  // some ten thousand pixels of a large picture

double decibels(double amplitude) {
  return 20 * std::log10(amplitude / 32'768);
}

}  // namespace

std::string levelText(double decibels) {
  return decibels < -96 ? "silent" : formatted("%.1f dB", decibels);
}

void LevelMeter::add(std::span<const std::int16_t> samples) {
  for (const std::int16_t sample : samples) {
    _peak = std::max(_peak, std::abs(static_cast<int>(sample)));
    _squares += static_cast<double>(sample) * sample;
  }
  _count += std::ssize(samples);
}

Level LevelMeter::take() {
  const LevelMeter taken = std::exchange(*this, {});
  if (taken._count == 0) return {};
  return {decibels(taken._peak), decibels(std::sqrt(taken._squares / static_cast<double>(taken._count)))};
}

std::optional<std::string> Condition::look(bool holds, brv::Time time) {
  if (!holds) {
    _since.reset();
    return std::exchange(_isTold, false) ? std::optional<std::string>(_over) : std::nullopt;
  }
  if (!_since) _since = time;
  if (_isTold || time - *_since < _patience) return std::nullopt;
  _isTold = true;
  return formatted("%s for %g s", _begun, _patience.count());
}

void SignalWatch::picture(const brv::Frame& frame) {
  const brv::Pixels pixels = frame.pixels();
  std::uint64_t sum = 0, count = 0, hash = 14'695'981'039'346'656'037U;
  for (std::size_t y = 0; y < pixels.height(); y += StepDown) {
    const std::span<const std::uint8_t> row = pixels.row(y);
    for (std::size_t x = 0; x < row.size(); x += 2 * StepRight, ++count) {
      sum += row[x];
      hash = (hash ^ row[x]) * 1'099'511'628'211U;
    }
  }
  tell(_black.look(static_cast<double>(sum) < BlackLuma * static_cast<double>(count), frame.time()));
  tell(_frozen.look(std::exchange(_lastPicture, hash) == hash && !_black.isTold(), frame.time()));
}

void SignalWatch::sound(const brv::Sound& sound) {
  for (LevelMeter* meter : {&_meter, &_run}) meter->add(sound.samples);
  const Level run = _run.take();
  _peak = std::max(_peak, run.peak);
  if (sound.time) tell(_silence.look(run.peak < Silence, *sound.time));
}

void SignalWatch::tell(std::optional<std::string> news) {
  if (news) _news.push_back(std::move(*news));
}

}  // namespace brvhost
