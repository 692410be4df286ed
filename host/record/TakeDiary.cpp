#include "record/TakeDiary.h"

#include <algorithm>
#include <utility>

#include "capture/Still.h"

namespace brvhost {

namespace {

constexpr std::size_t MostStills = 6, WidestStill = 640, MostHoles = 200, MostRemarks = 100;
constexpr double Silent = -90;

}  // namespace

void TakeDiary::picture(double position, const brv::Frame& frame) {
  std::vector<std::uint8_t> jpeg;
  if (wants(position)) jpeg = jpegOf(frame, WidestStill);  // which takes a while
  const std::lock_guard lock(_mutex);
  _end = std::max(_end, position);
  if (_lastPicture) _notes.intervals.add(position, 1'000 * (position - *_lastPicture));
  _lastPicture = position;
  if (jpeg.empty()) return;
  if (_notes.stills.size() == MostStills) {
    for (std::size_t i = 1; i < MostStills / 2; ++i) _notes.stills[i] = std::move(_notes.stills[2 * i]);
    _notes.stills.resize(MostStills / 2);
    _stillsApart *= 2;
    if (position - _notes.stills.back().position < _stillsApart) return;
  }
  _notes.stills.push_back({position, std::move(jpeg)});
}

bool TakeDiary::wants(double position) const {
  const std::lock_guard lock(_mutex);
  return _notes.stills.empty() || position - _notes.stills.back().position >= _stillsApart;
}

void TakeDiary::sound(double position, std::span<const std::int16_t> samples) {
  if (samples.empty()) return;
  _meter.add(samples);
  const double peak = std::max(_meter.take().peak, Silent);
  const std::lock_guard lock(_mutex);
  _end = std::max(_end, position);
  _notes.levels.add(position, peak);
}

void TakeDiary::hole(Medium medium, double position, double seconds) {
  const std::lock_guard lock(_mutex);
  if (_notes.holes.size() == MostHoles)
    ++_notes.furtherHoles;
  else
    _notes.holes.push_back({medium, position, seconds, ""});
}

bool TakeDiary::hasUnexplained() const {
  const std::lock_guard lock(_mutex);
  return _explained < _notes.holes.size();
}

void TakeDiary::explain(const std::string& pictureReason, const std::string& soundReason) {
  const std::lock_guard lock(_mutex);
  for (; _explained < _notes.holes.size(); ++_explained) {
    TakeNotes::Hole& hole = _notes.holes[_explained];
    hole.reason = hole.medium == Medium::video ? pictureReason : soundReason;
  }
}

void TakeDiary::remark(const std::string& text) {
  const std::lock_guard lock(_mutex);
  if (_notes.remarks.size() < MostRemarks) _notes.remarks.push_back({_end, text});
}

TakeNotes TakeDiary::notes() const {
  const std::lock_guard lock(_mutex);
  return _notes;
}

}  // namespace brvhost
