#pragma once

// Puts the samples of a recording in their places in its files: both media begin together, to a sample, and lie as far
// apart as their time stamps say. Sound is one piece: where some is missing there is silence. One thread at a time.

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "record/MediaFile.h"
#include "record/TakeAccount.h"
#include "record/TakeOptions.h"

namespace brvhost {

/// A run of sound, left and right in turn.
struct SoundRun {
  brv::Time time{};
  std::vector<std::int16_t> samples;

  std::int64_t frames() const { return std::ssize(samples) / 2; }
};

class TakeWriter {
 public:
  /// Opens the first file, whose former contents stay until there is something to write, or connects. Throws Failure.
  explicit TakeWriter(TakeOptions options);

  /// The next samples, as they come; `skipped` pictures before this one could not be kept. Throw Failure when they
  /// cannot be written.
  void picture(const brv::Frame& frame, const FrameTiming& timing, std::int64_t skipped);
  void sound(SoundRun run);

  /// Nothing more comes. Throws Failure when not everything is on the disk.
  void finish();

  /// Whether it waits for the first sound, to begin with it.
  bool lacksSound() const { return _options.records(Medium::audio) && !_zero && _heldSound.empty(); }
  /// The same of the first picture.
  bool lacksPictures() const { return _options.records(Medium::video) && !_zero && _heldPictures.empty(); }

  const TakeAccount& account() const { return _account; }
  /// In all files, by now.
  std::int64_t bytes() const;

 private:
  using Seconds = brv::Seconds;

  void begin();
  void dropHeldPicture();
  void beginAt(brv::Time time, const std::optional<PictureFormat>& picture);
  void beginFile(double seconds, const std::optional<PictureFormat>& picture);
  void endFile(std::unique_ptr<MediaFile>& file);
  MediaFile::Target open(const std::string& name) const;
  std::string nameOf(std::size_t number) const;

  void place(const brv::Frame& frame, const FrameTiming& timing, std::int64_t skipped);

  Seconds positionOf(const SoundRun& run) const;
  void writeHeldSound(bool all);
  void place(const SoundRun& run);
  void writeSound(std::span<const std::int16_t> samples, std::int64_t silence);
  std::int64_t soundPosition() const;
  void keepWithPictures();
  /// `each` lasts a frame.
  void addGap(Medium medium, double position, std::int64_t missing, double each);
  static std::int64_t framesIn(double seconds);

  const TakeOptions _options;
  TakeAccount _account;
  std::optional<MediaFile::Target> _first;
  std::unique_ptr<MediaFile> _file;
  std::unique_ptr<MediaFile> _former;  ///< until the sound has come to the end of its pictures too
  std::int64_t _finishedBytes = 0;

  std::optional<brv::Time> _firstSeen;
  std::optional<brv::Time> _zero;  ///< where the recording begins: 0 of all positions
  double _fileSeconds = 0;         ///< where the file begins
  std::int64_t _fileSound = 0;     ///< the same in frames of sound
  std::int64_t _formerSound = 0;   ///< that of the former file

  std::deque<std::pair<brv::Frame, FrameTiming>> _heldPictures;  ///< before the recording begins
  std::optional<Seconds> _lastPicture;
  Seconds _pictureShift{};                 ///< of positions to stamps, where their clock began anew
  std::optional<std::int64_t> _fileStamp;  ///< of the file's first picture
  std::int64_t _lastStamp = -1;            ///< in the file

  std::deque<SoundRun> _heldSound;
  std::optional<Seconds> _soundEnd;  ///< by its stamps
  Seconds _soundShift{};
  double _stretchedUntil = 0;
};

}  // namespace brvhost
