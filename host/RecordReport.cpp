#include "RecordReport.h"

#include "Failure.h"

namespace brvhost {

namespace {

std::string count(std::int64_t number) {
  return std::to_string(number);
}

std::string stampText(std::int64_t stamp, std::int32_t ticksPerSecond) {
  std::string text = count(stamp);
  if (ticksPerSecond > 0) text += formatted(" (%.3f s)", inSeconds(stamp, ticksPerSecond));
  return text;
}

std::string stampsText(std::int64_t first, std::int32_t firstTicks, std::int64_t last, std::int32_t lastTicks) {
  std::string text = "  time stamps first " + stampText(first, firstTicks) + ", last " + stampText(last, lastTicks);
  if (lastTicks > 0) text += formatted(", %d ticks a second", lastTicks);
  return text + "\n";
}

double soundSeconds(const AudioStatistics& sound) {
  return inSeconds(sound.frames, sound.format.sampleRate);
}

/// How the account of a track closes: what has not reached the file yet, and what every callback was.
std::string balanceText(const TrackStatistics& statistics) {
  std::string text = ", not written " + count(statistics.notWritten);
  if (statistics.waiting() > 0) text += ", waiting " + count(statistics.waiting());
  text += "\n  callbacks   " + count(statistics.callbacks()) + ": recorded " + count(statistics.recorded) +
          ", before or after " + count(statistics.outside) + ", unusable " + count(statistics.unusable) + "\n";
  return text;
}

std::string videoReport(const VideoTrack& track) {
  const VideoStatistics video = track.statistics();
  const VideoTimeline& timeline = video.timeline;
  std::string text = track.path() + "\n";
  if (video.format) {
    const Rational& rate = video.format->frameRate;
    const Rational& aspect = video.format->pixelAspect;
    text += formatted("  picture     %zu x %zu, %lld/%lld frames a second, pixels %lld:%lld\n", video.format->width,
                      video.format->height, static_cast<long long>(rate.numerator),
                      static_cast<long long>(rate.denominator), static_cast<long long>(aspect.numerator),
                      static_cast<long long>(aspect.denominator));
  }
  text += "  frames      captured " + count(timeline.captured()) + ", delivered " + count(timeline.delivered()) +
          ", dropped " + count(timeline.dropped()) + balanceText(video);
  if (timeline.delivered() > 0) {
    text += stampsText(timeline.firstStamp(), timeline.firstTiming().ticksPerSecond, timeline.lastStamp(),
                       timeline.lastTiming().ticksPerSecond);
  }
  return text;
}

std::string audioReport(const AudioTrack& track, std::int32_t ticksPerSecond) {
  const AudioStatistics sound = track.statistics();
  std::string text = track.path() + "\n";
  text += formatted("  sound       %.3f s (%lld frames)", soundSeconds(sound), static_cast<long long>(sound.frames)) +
          balanceText(sound);
  if (sound.recorded > 0) {
    const std::int32_t ticks = soundTicksPerSecond(ticksPerSecond, sound.firstStamp, sound.lastStamp,
                                                   sound.framesBeforeLast, sound.format.sampleRate);
    text += stampsText(sound.firstStamp, ticks, sound.lastStamp, ticks);
  }
  return text;
}

/// What is wrong with one track.
std::optional<std::string> shortfall(const TrackStatistics& statistics, const std::string& path,
                                     const char* nothingCame) {
  if (statistics.failure) return statistics.failure;
  if (statistics.ending) return statistics.ending;
  if (statistics.frames == 0) return nothingCame;
  if (statistics.notWritten > 0) return path + " is not whole: the disk did not keep up";
  return std::nullopt;
}

}  // namespace

std::string progressText(double elapsedSeconds, const Recorder& recorder) {
  const auto seconds = static_cast<long long>(elapsedSeconds);
  std::string text = formatted("%02lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60, seconds % 60);
  if (recorder.video() != nullptr) {
    const VideoStatistics video = recorder.video()->statistics();
    text += "  " + count(video.timeline.delivered()) + " frames, " + count(video.timeline.dropped()) + " dropped, " +
            count(video.notWritten) + " not written";
  }
  if (recorder.audio() != nullptr) {
    text += formatted("  %.1f s of sound", soundSeconds(recorder.audio()->statistics()));
  }
  return text;
}

std::string reportText(const Recorder& recorder, std::int32_t ticksPerSecond) {
  std::string text;
  if (recorder.video() != nullptr) text += videoReport(*recorder.video());
  if (recorder.audio() != nullptr) text += audioReport(*recorder.audio(), ticksPerSecond);
  return text;
}

std::optional<std::string> shortfallOf(const Recorder& recorder) {
  std::optional<std::string> found;
  if (recorder.video() != nullptr) {
    found = shortfall(recorder.video()->statistics(), recorder.video()->path(), "no picture came from the source");
  }
  if (!found && recorder.audio() != nullptr) {
    found = shortfall(recorder.audio()->statistics(), recorder.audio()->path(), "no sound came from the source");
  }
  return found;
}

}  // namespace brvhost
