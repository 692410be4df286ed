#include "Recorder.h"

#include <utility>

namespace brvhost {

Recorder::Recorder(const std::string& base, Media media, std::optional<double> seconds,
                   std::function<FrameTiming()> timing) {
  if (media.video) video_ = std::make_unique<VideoTrack>(base + ".y4m", seconds, std::move(timing));
  if (media.audio) audio_ = std::make_unique<AudioTrack>(base + ".wav", seconds);
}

void Recorder::arm() noexcept {
  if (video_) video_->arm();
  if (audio_) audio_->arm();
}

void Recorder::videoArrived(void* context, BRV_VideoBuffer* buffer) {
  const auto* const recorder = static_cast<Recorder*>(context);
  if (recorder->video_) recorder->video_->frameArrived(*buffer);
}

void Recorder::audioArrived(void* context, BRV_AudioBuffer* buffer) {
  const auto* const recorder = static_cast<Recorder*>(context);
  if (recorder->audio_) recorder->audio_->soundArrived(*buffer);
}

void Recorder::finish() noexcept {
  if (video_) video_->finish();
  if (audio_) audio_->finish();
}

bool Recorder::isComplete() const {
  return (!video_ || video_->isComplete()) && (!audio_ || audio_->isComplete());
}

std::int64_t Recorder::sampleCount() const {
  return (video_ ? video_->statistics().timeline.delivered() : 0) + (audio_ ? audio_->statistics().frames : 0);
}

std::optional<std::string> Recorder::failure() const {
  std::optional<std::string> failure;
  if (video_) failure = video_->statistics().failure;
  if (!failure && audio_) failure = audio_->statistics().failure;
  return failure;
}

}  // namespace brvhost
