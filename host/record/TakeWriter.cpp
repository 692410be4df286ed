#include "record/TakeWriter.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "common/LocalTime.h"
#include "record/TakeDiary.h"

namespace brvhost {

namespace {

using namespace std::chrono_literals;

/// How long the one medium waits for the other at the beginning, and sound for the pictures of its time later on.
constexpr brv::Seconds Patience = 1s;
/// While the sound has not come: each keeps a buffer of the source.
constexpr std::size_t MostHeldPictures = 4;
/// How far sound may come to lie from its stamps before it is stretched: less than is heard.
constexpr double MostDrift = 0.02;
/// What goes back so far counts from another moment.
constexpr brv::Seconds StepBack = -500ms;

double secondsOf(std::int64_t frames) {
  return static_cast<double>(frames) / SoundRate;
}

}  // namespace

TakeWriter::TakeWriter(TakeOptions options) : _options(std::move(options)) {
  _first.emplace(open(nameOf(1)));
}

// ---- Pictures ----

void TakeWriter::picture(const brv::Frame& frame, const FrameTiming& timing, std::int64_t skipped) {
  if (_account.pictures.isComplete) {
    _account.pictures.outside += 1 + skipped;
    return;
  }
  if (_zero) return place(frame, timing, skipped);
  if (!_firstSeen) _firstSeen = frame.time();
  _heldPictures.emplace_back(frame, timing);
  if (_heldPictures.size() > MostHeldPictures) dropHeldPicture();
  begin();
}

/// Begins with the first picture that is not before the sound, or when the sound has had its time.
void TakeWriter::begin() {
  while (!_zero && !_heldPictures.empty()) {
    const auto& [frame, timing] = _heldPictures.front();
    if (lacksSound() && _heldPictures.back().first.time() - *_firstSeen < Patience) return;
    if (_heldSound.empty() || frame.time() >= _heldSound.front().time) {
      beginAt(frame.time(), formatOf(frame, timing));
    } else {
      dropHeldPicture();
    }
  }
  for (const auto& [frame, timing] : std::exchange(_heldPictures, {})) place(frame, timing, 0);
}

void TakeWriter::dropHeldPicture() {
  _heldPictures.pop_front();
  ++_account.pictures.outside;
}

void TakeWriter::place(const brv::Frame& frame, const FrameTiming& timing, std::int64_t skipped) {
  MediumAccount& account = _account.pictures;
  const PictureFormat format = formatOf(frame, timing);
  const Seconds duration(inSeconds(timing.frameDuration, timing.ticksPerSecond));
  Seconds position = frame.time() - *_zero + _pictureShift;
  if (_lastPicture && position <= *_lastPicture) {
    _pictureShift += *_lastPicture + duration - position;
    position = *_lastPicture + duration;
  }
  const auto framesUntil = [&](double seconds) {
    const bool isKnown = duration.count() > 0 && account.delivered > 0;
    return isKnown ? std::llround((seconds - account.endSeconds) / duration.count()) : 0;
  };
  std::int64_t missing = framesUntil(position.count()) - skipped;
  if (_options.seconds && account.delivered > 0 && position.count() + duration.count() / 2 > *_options.seconds) {
    addGap(Medium::video, account.endSeconds, std::min<std::int64_t>(missing, framesUntil(*_options.seconds)),
           duration.count());
    account.outside += 1 + skipped;
    account.isComplete = true;
    return writeHeldSound(false);
  }
  addGap(Medium::video, account.endSeconds, missing, duration.count());
  account.delivered += 1 + skipped;
  account.notWritten += skipped;
  account.endSeconds = (position + duration).count();
  account.sampleSeconds = duration.count();

  const bool isDue =
      _options.segmentSeconds && position.count() + duration.count() / 2 > _fileSeconds + *_options.segmentSeconds;
  if (isDue || !_file->picture() || !_file->picture()->looksLike(format)) beginFile(position.count(), format);
  _lastPicture = position;
  const std::int64_t ticks = _file->picture()->timing.ticksPerSecond;
  const bool isExact = _pictureShift == 0s && ticks == timing.ticksPerSecond;
  const std::int64_t stamp =
      isExact ? frame.record().timeStamp : std::llround(position.count() * static_cast<double>(ticks));
  if (!_fileStamp) _fileStamp = stamp;
  _lastStamp = std::max(stamp - *_fileStamp, _lastStamp + 1);
  _file->writePicture(frame, _lastStamp);
  ++account.written;
  if (_options.diary) _options.diary->picture(position.count(), frame);
  writeHeldSound(false);
}

// ---- Sound ----

void TakeWriter::sound(SoundRun run) {
  if (_account.sound.isComplete) {
    _account.sound.outside += run.frames();
    return;
  }
  _heldSound.push_back(std::move(run));
  const brv::Time first = _heldSound.front().time;
  if (!_firstSeen) _firstSeen = first;
  if (!_zero) begin();
  const bool hasPictures = _options.records(Medium::video);
  if (!_zero && (!hasPictures || _heldSound.back().time - first >= 2 * Patience)) beginAt(first, std::nullopt);
  if (_zero) writeHeldSound(false);
}

TakeWriter::Seconds TakeWriter::positionOf(const SoundRun& run) const {
  return run.time - *_zero + _soundShift;
}

/// Sound waits for the pictures of its time: one of them may begin a file.
void TakeWriter::writeHeldSound(bool all) {
  while (!_heldSound.empty() && _zero) {
    const SoundRun& run = _heldSound.front();
    const bool isDue = all || !_lastPicture || _account.pictures.isComplete || *_lastPicture >= positionOf(run) ||
                       _heldSound.back().time - run.time >= Patience;
    if (!isDue) return;
    place(run);
    _heldSound.pop_front();
  }
}

void TakeWriter::place(const SoundRun& run) {
  MediumAccount& account = _account.sound;
  if (account.isComplete) {
    account.outside += run.frames();
    return;
  }
  const Seconds length(secondsOf(run.frames()));
  Seconds step = positionOf(run) - _soundEnd.value_or(Seconds(0));
  if (_soundEnd && step < StepBack) {
    _soundShift -= step;
    step = 0s;
  }
  const Seconds tolerance = std::max(length.count(), account.sampleSeconds) / 2 * Seconds(_soundEnd ? 1 : 0);
  std::int64_t silence = step > tolerance ? framesIn(step.count()) : 0;
  const std::int64_t skipped = _soundEnd ? 0 : std::clamp<std::int64_t>(framesIn(-step.count()), 0, run.frames());
  account.outside += skipped;
  if (skipped == run.frames()) return;
  _soundEnd = positionOf(run) + length;
  account.sampleSeconds = length.count();

  std::int64_t frames = run.frames() - skipped;
  if (_options.seconds) {
    const std::int64_t room = std::max<std::int64_t>(framesIn(*_options.seconds), 1) - soundPosition();
    silence = std::clamp<std::int64_t>(silence, 0, std::max<std::int64_t>(room, 0));
    account.isComplete = frames >= room - silence;
    account.outside += std::max<std::int64_t>(frames - (room - silence), 0);
    frames = std::clamp<std::int64_t>(room - silence, 0, frames);
  }
  addGap(Medium::audio, secondsOf(soundPosition()), silence, 1.0 / SoundRate);
  account.delivered += frames;
  const auto heard =
      std::span(run.samples).subspan(static_cast<std::size_t>(2 * skipped), static_cast<std::size_t>(2 * frames));
  writeSound(heard, silence);
  if (_options.diary) _options.diary->sound(secondsOf(soundPosition()), heard);
  account.written += frames;
  account.endSeconds = secondsOf(soundPosition());
  keepWithPictures();
}

std::int64_t TakeWriter::soundPosition() const {
  return _former ? _formerSound + _former->soundFrames() : _fileSound + _file->soundFrames();
}

void TakeWriter::writeSound(std::span<const std::int16_t> samples, std::int64_t silence) {
  if (_former) {
    const std::int64_t quiet = std::clamp<std::int64_t>(_fileSound - soundPosition(), 0, silence);
    _former->writeSilence(quiet);
    silence -= quiet;
    const auto heard = static_cast<std::size_t>(
        2 * std::clamp<std::int64_t>(_fileSound - soundPosition(), 0, std::ssize(samples) / 2));
    _former->writeSound(samples.first(heard));
    samples = samples.subspan(heard);
    if (soundPosition() >= _fileSound) endFile(_former);
  }
  if (_former) return;
  _file->writeSilence(silence);
  _file->writeSound(samples);
}

/// Microphones have clocks of their own.
void TakeWriter::keepWithPictures() {
  const double late = _soundEnd->count() - _account.sound.endSeconds;
  if (_former || _account.sound.isComplete || std::abs(late) < MostDrift || _soundEnd->count() < _stretchedUntil)
    return;
  _file->stretchSound(framesIn(late));
  _stretchedUntil = _soundEnd->count() + 10;
  _account.drift += late;
}

void TakeWriter::addGap(Medium medium, double position, std::int64_t missing, double each) {
  MediumAccount& account = medium == Medium::video ? _account.pictures : _account.sound;
  account.gaps.add(position, missing);
  if (_options.diary && missing > 0) _options.diary->hole(medium, position, static_cast<double>(missing) * each);
}

std::int64_t TakeWriter::framesIn(double seconds) {
  return std::llround(seconds * SoundRate);
}

// ---- Files ----

void TakeWriter::beginAt(brv::Time time, const std::optional<PictureFormat>& picture) {
  _zero = time;
  beginFile(0, picture);
}

void TakeWriter::beginFile(double seconds, const std::optional<PictureFormat>& picture) {
  endFile(_former);
  _former = std::move(_file);
  _formerSound = _fileSound;
  _fileSeconds = seconds;
  _fileSound = framesIn(seconds);
  _fileStamp.reset();
  _lastStamp = -1;
  const bool hasSound = _options.records(Medium::audio);
  if (!hasSound) endFile(_former);

  const std::string name = nameOf(_account.files.size() + 1);
  if (name == "-" && !_account.files.empty()) throw Failure("the picture changed; standard output ends there");
  std::optional<MediaFile::Target> target = std::exchange(_first, std::nullopt);
  if (!target) target.emplace(open(name));
  const auto* const file = std::get_if<OutputFile>(&*target);
  _account.files.push_back(file ? file->path() : name);
  _file = std::make_unique<MediaFile>(name, std::move(*target), _options.encoding, picture, hasSound);
  _account.format = _file->description();
}

void TakeWriter::endFile(std::unique_ptr<MediaFile>& file) {
  if (!file) return;
  const std::unique_ptr<MediaFile> ended = std::move(file);
  try {
    ended->close();
    _finishedBytes += ended->size();
  } catch (const Failure&) {
    _finishedBytes += ended->size();
    _account.pictures.takeBack(ended->lostPictures());
    _account.sound.takeBack(ended->lostSound());
    throw;
  }
}

void TakeWriter::finish() {
  std::optional<Failure> failure;
  const auto attempt = [&](auto&& work) {
    try {
      work();
    } catch (const Failure& reason) {
      if (!failure) failure = reason;
    }
  };
  attempt([&] { writeHeldSound(true); });
  attempt([&] { endFile(_former); });
  attempt([&] { endFile(_file); });
  _first.reset();
  for (const SoundRun& run : std::exchange(_heldSound, {})) _account.sound.delivered += run.frames();
  for (MediumAccount* const medium : {&_account.pictures, &_account.sound}) medium->notWritten += medium->waiting();
  if (failure) throw *failure;
}

std::int64_t TakeWriter::bytes() const {
  return _finishedBytes + (_former ? _former->size() : 0) + (_file ? _file->size() : 0);
}

MediaFile::Target TakeWriter::open(const std::string& name) const {
  if (isURL(name)) return std::make_unique<NetworkStream>(name, _options.isInterrupted);
  return OutputFile(name);
}

std::string TakeWriter::nameOf(std::size_t number) const {
  const std::string& pattern = _options.target;
  if (isURL(pattern) || pattern == "-") return pattern;
  std::string name = localTime(pattern.c_str());
  if (name.empty()) throw Failure(pattern + " is no name for a file");
  const bool isTold =
      name != pattern && std::find(_account.files.begin(), _account.files.end(), name) == _account.files.end();
  if (!isTold && (number > 1 || _options.segmentSeconds)) name.insert(name.rfind('.'), formatted("-%03zu", number));
  return name;
}

}  // namespace brvhost
