#include "record/RecordReport.h"

#include <cmath>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/Failure.h"

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

std::string framesText(std::int64_t frames) {
  return count(frames) + (frames == 1 ? " frame" : " frames");
}

/// The first gaps, each `describe`d by what is missing; nothing where there are none.
template <typename Describe>
std::string gapsText(const Gaps& gaps, Describe&& describe) {
  std::string text;
  for (const Gap& gap : gaps.first()) {
    text += (text.empty() ? "  gaps        " : ", ") + describe(gap.missing) + formatted(" at %.3f s", gap.position);
  }
  if (text.empty()) return text;
  const std::size_t others = gaps.count() - gaps.first().size();
  return text + (others > 0 ? formatted(", and %zu more\n", others) : "\n");
}

/// How the account of a track closes: what has not reached the file yet, and what every callback was.
std::string balanceText(const TrackStatistics& statistics) {
  std::string text = ", not written " + count(statistics.notWritten);
  if (statistics.waiting() > 0) text += ", waiting " + count(statistics.waiting());
  text += "\n  callbacks   " + count(statistics.callbacks()) + ": recorded " + count(statistics.recorded) +
          ", after the end " + count(statistics.late) + "\n";
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
          ", dropped " + count(timeline.gaps().missing()) + balanceText(video) + gapsText(timeline.gaps(), framesText);
  if (timeline.delivered() > 0) {
    text += stampsText(timeline.firstStamp(), timeline.firstTiming().ticksPerSecond, timeline.lastStamp(),
                       timeline.lastTiming().ticksPerSecond);
  }
  return text;
}

/// `sourceTicks` is what the source counts in, and its sound too where that `isAlone`.
std::string audioReport(const AudioTrack& track, std::int32_t sourceTicks, bool isAlone) {
  const AudioStatistics sound = track.statistics();
  const SoundTimeline& timeline = sound.timeline;
  const auto secondsText = [&](std::int64_t frames) {
    return formatted("%.3f s", inSeconds(frames, sound.format.sampleRate));
  };
  std::string text = track.path() + "\n  sound       " + secondsText(sound.frames) + " (" + framesText(sound.frames) +
                     "), missing " + secondsText(timeline.gaps().missing()) + balanceText(sound) +
                     gapsText(timeline.gaps(), secondsText);
  if (sound.recorded > 0) {
    const auto unit = [&](double measured) {
      return isAlone && sound.recorded == 1 ? sourceTicks : soundTicksPerSecond(sourceTicks, measured);
    };
    text += stampsText(timeline.firstStamp(), unit(timeline.firstTicksPerSecond()), timeline.lastStamp(),
                       unit(timeline.lastTicksPerSecond()));
  }
  return text;
}

/// Where the files of one take differ in length by more than a last frame and a last run can; otherwise nothing.
std::string differenceText(const VideoTrack& videoTrack, const AudioTrack& audioTrack) {
  const VideoStatistics video = videoTrack.statistics();
  const AudioStatistics sound = audioTrack.statistics();
  const FrameTiming& timing = video.timeline.firstTiming();  // the file's
  if (!timing.isKnown() || video.frames == 0 || sound.frames == 0) return {};
  const double frameSeconds = inSeconds(timing.frameDuration, timing.ticksPerSecond);
  const double soundFrames = inSeconds(sound.frames - sound.notWritten, sound.format.sampleRate) / frameSeconds;
  const double shorter = soundFrames - static_cast<double>(video.frames - video.notWritten);
  if (std::abs(shorter) <= sound.sampleSeconds() / frameSeconds + 1.5) return {};
  return (shorter > 0 ? "the picture is " : "the sound is ") + framesText(std::llround(std::abs(shorter))) +
         formatted(" (%.3f s) shorter than the ", std::abs(shorter) * frameSeconds) +
         (shorter > 0 ? "sound\n" : "picture\n");
}

/// What is wrong with one track.
std::optional<std::string> shortfall(const TrackStatistics& statistics, const std::string& path,
                                     const std::string& nothingCame) {
  if (statistics.failure) return statistics.failure;
  if (statistics.ending) return statistics.ending;
  if (statistics.frames == 0) {
    std::error_code error;
    const bool isEarlier = std::filesystem::is_regular_file(path, error);
    return nothingCame + (isEarlier ? "; " + path + " is still that of an earlier take" : "");
  }
  if (statistics.notWritten > 0) return path + " is not whole: the disk did not keep up";
  return std::nullopt;
}

}  // namespace

std::string progressText(double elapsedSeconds, const Recorder& recorder) {
  const auto seconds = static_cast<long long>(elapsedSeconds);
  std::string text = formatted("%02lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60, seconds % 60);
  if (recorder.video() != nullptr) {
    const VideoStatistics video = recorder.video()->statistics();
    text += "  " + count(video.timeline.delivered()) + " frames, " + count(video.timeline.gaps().missing()) +
            " dropped, " + count(video.notWritten) + " not written";
  }
  if (recorder.audio() != nullptr) {
    text += formatted("  %.1f s of sound", soundSeconds(recorder.audio()->statistics()));
  }
  return text;
}

std::string reportText(const Recorder& recorder, std::int32_t ticksPerSecond) {
  std::string text;
  if (recorder.video() != nullptr) text += videoReport(*recorder.video());
  if (recorder.audio() != nullptr) text += audioReport(*recorder.audio(), ticksPerSecond, recorder.video() == nullptr);
  if (recorder.video() != nullptr && recorder.audio() != nullptr) {
    text += differenceText(*recorder.video(), *recorder.audio());
  }
  return text;
}

std::string dropsText(const char* medium, const Drops& before, const Drops& after) {
  static const std::pair<const char*, const char*> words[] = {
      {"late", "because the disk or the machine was behind"},
      {"no_buffer", "for want of buffers or memory"},
      {"lost_by_device", "lost by the device"},
      {"not_converted", "that could not be decoded or converted"},
      {"invalid_time", "without a valid time"},
      {"stopped", "that were waiting at a stop"}};
  std::string text;
  for (const auto& [reason, why] : words) {
    const auto first = before.find(reason), last = after.find(reason);
    if (first == before.end() || last == after.end() || last->second == first->second) continue;
    text +=
        (text.empty() ? medium + std::string(" dropped: ") : ", ") + count(last->second - first->second) + " " + why;
  }
  return text.empty() ? text : text + "\n";
}

std::optional<std::string> shortfallOf(const Recorder& recorder, const std::string& sourceError) {
  const std::string reason = sourceError.empty() ? "" : ": " + sourceError;
  std::optional<std::string> found;
  if (const VideoTrack* video = recorder.video()) {
    found = shortfall(video->statistics(), video->path(), "no picture came from the source" + reason);
  }
  if (const AudioTrack* audio = recorder.audio(); !found && audio != nullptr) {
    found = shortfall(audio->statistics(), audio->path(), "no sound came from the source" + reason);
  }
  return found;
}

}  // namespace brvhost
