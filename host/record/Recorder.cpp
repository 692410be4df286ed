#include "record/Recorder.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "common/Failure.h"

namespace brvhost {

namespace {

/// Nothing is removed: whether the file can go is not for a program to know.
void requireNone(const std::string& path, const char* medium) {
  std::error_code error;
  if (!std::filesystem::exists(path, error)) return;
  throw Failure(path + " is of another take and would pass for the " + medium +
                " of this one, which has none: " + "remove it, or choose another --output");
}

}  // namespace

Recorder::Recorder(const std::string& base, Media media, std::optional<double> seconds,
                   std::function<FrameTiming()> timing) {
  if (!media.video) requireNone(base + ".y4m", "picture");
  if (!media.audio) requireNone(base + ".wav", "sound");
  if (media.video) _video = std::make_unique<VideoTrack>(base + ".y4m", seconds, std::move(timing));
  if (media.audio) _audio = std::make_unique<AudioTrack>(base + ".wav", seconds);
}

brv::Handlers Recorder::handlers() {
  brv::Handlers handlers;
  if (_video) handlers.video = [track = _video.get()](const brv::Frame& frame) { track->frameArrived(frame); };
  if (_audio) handlers.audio = [track = _audio.get()](const brv::Sound& sound) { track->soundArrived(sound); };
  return handlers;
}

void Recorder::finish() noexcept {
  if (_video) _video->finish();
  if (_audio) _audio->finish();
}

bool Recorder::isComplete() const {
  return (!_video || _video->isComplete()) && (!_audio || _audio->isComplete());
}

std::optional<std::string> Recorder::failure() const {
  std::optional<std::string> failure;
  if (_video) failure = _video->statistics().failure;
  if (!failure && _audio) failure = _audio->statistics().failure;
  return failure;
}

}  // namespace brvhost
