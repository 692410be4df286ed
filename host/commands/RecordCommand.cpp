#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "capture/MediumWatch.h"
#include "capture/SourceSettings.h"
#include "capture/Sources.h"
#include "commands/Commands.h"
#include "common/Failure.h"
#include "common/Interrupt.h"
#include "record/RecordReport.h"
#include "record/Recorder.h"

namespace brvhost {

namespace {

using Clock = MediumWatch::Clock;

constexpr brv::Seconds PollTime(0.02);
constexpr double ProgressSeconds = 1;
/// How much longer than asked a recording may take by the clock: a camera may be slow to begin, and frames may be
/// missing.
constexpr double GraceSeconds = 5;
/// How much later than the one medium of a clip the other may end.
constexpr double ApartSeconds = 1;

double secondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

/// What ended a recording.
enum class End { complete, failed, interrupted, idle, overdue, unplugged };

/// One recording while it runs.
class Take {
 public:
  Take(const brv::Library& library, const brv::Source& source, const Recorder& recorder, const Options& options,
       Console& console)
      : _library(library), _source(source), _recorder(recorder), _options(options), _console(console) {
    if (const auto* video = recorder.video()) watch("picture", *video);
    if (const auto* audio = recorder.audio()) watch("sound", *audio);
  }

  /// Runs the main loop until the recording is over.
  End run() {
    Clock::time_point nextProgress = _start + std::chrono::seconds(1);
    while (!_recorder.isComplete() && !isAllComplete()) {
      _library.poll(PollTime);
      const Clock::time_point now = Clock::now();
      const auto progress = [&] { return progressText(secondsBetween(_start, now), _recorder); };
      if (Interrupt::requested()) return End::interrupted;
      if (Interrupt::takeInquiry()) {
        _console.line(progress() + "\n" + reportText(_recorder, timingOf(_source).ticksPerSecond));
      }
      if (_recorder.failure()) return End::failed;  // what is left of the recording would hardly fare better
      if (!_source.isPluggedIn()) return End::unplugged;
      for (MediumWatch& medium : _media) medium.look(now);
      if (_options.untilIdle && allThatCameIsIdle()) return End::idle;
      tellNews();
      if (_options.seconds && isOverdue(secondsBetween(_start, now))) return End::overdue;
      if (now >= nextProgress) {
        _console.progress(progress());
        nextProgress += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(ProgressSeconds));
      }
    }
    return End::complete;
  }

  /// What was missing of the media at that end; none when nothing was.
  std::optional<std::string> shortfallAt(End end) const {
    std::string text;
    if (end == End::overdue) {
      for (const MediumWatch& medium : _media) {
        if (medium.isComplete() || medium.isLongEnough()) continue;
        text += (text.empty() ? "" : " and ") + formatted("the %s ended at %.3f s", medium.name(), medium.endSeconds());
      }
      if (!text.empty()) text += formatted(", not at the %g s asked for", *_options.seconds);
    } else if (end == End::interrupted) {
      for (const MediumWatch& medium : _media) {
        if (!medium.isIdle()) continue;
        text +=
            (text.empty() ? "" : ", and ") + formatted("no %s came after %.3f s", medium.name(), medium.endSeconds());
      }
    }
    return text.empty() ? std::nullopt : std::optional(text);
  }

 private:
  template <typename Track>
  void watch(const char* name, const Track& track) {
    const auto state = [&track] {
      const auto statistics = track.statistics();
      return MediumState{statistics.frames, statistics.endSeconds(), statistics.sampleSeconds(), track.isComplete()};
    };
    _media.emplace_back(name, state, _options.seconds, _start);
  }

  bool isAllComplete() const {
    return std::all_of(_media.begin(), _media.end(), [](const MediumWatch& medium) { return medium.isComplete(); });
  }

  bool allThatCameIsIdle() const {
    bool hasAnyCome = false;
    for (const MediumWatch& medium : _media) {
      hasAnyCome = hasAnyCome || medium.hasDelivered();
      if (medium.hasDelivered() && !medium.isComplete() && !medium.isIdle()) return false;
    }
    return hasAnyCome;
  }

  /// At the end of a clip its media stop one soon after the other, which is what the user waits for.
  void tellNews() {
    const bool isEnding = _options.untilIdle && std::all_of(_media.begin(), _media.end(), [](const auto& medium) {
                            return medium.isComplete() || medium.silentSeconds() > medium.idleSeconds() - ApartSeconds;
                          });
    if (isEnding) return;
    for (MediumWatch& medium : _media) {
      if (const auto news = medium.takeNews()) _console.line(*news);
    }
  }

  /// What has stopped and comes back later than asked for would belong to the recording no more.
  bool isOverdue(double elapsedSeconds) const {
    const bool isAnyToCome = std::any_of(_media.begin(), _media.end(), [](const MediumWatch& medium) {
      return !medium.isComplete() && !(medium.hasDelivered() && medium.isIdle());
    });
    return elapsedSeconds >= *_options.seconds + (isAnyToCome ? GraceSeconds : 0);
  }

  const brv::Library& _library;
  const brv::Source& _source;
  const Recorder& _recorder;
  const Options& _options;
  Console& _console;
  const Clock::time_point _start = Clock::now();
  std::vector<MediumWatch> _media;
};

}  // namespace

void recordSource(const brv::Library& library, const Options& options, std::ostream& out, Console& console) {
  const brv::Source source = findSource(library, options.source);
  const bool hasVideo = source.hasVideo(), hasAudio = source.hasAudio();
  if (!hasVideo && !hasAudio) throw Failure(source.id() + " has nothing to record");
  requireSettings(library, source, options.settings);  // before the files of an earlier recording are replaced

  Recorder recorder(options.output, {hasVideo, hasAudio}, options.seconds, [&source] { return timingOf(source); });
  std::optional<Take> take;
  End end = End::complete;
  std::int32_t ticksPerSecond = 0;
  std::string drops;
  {
    Drops picturesBefore, soundBefore;
    brv::Handlers handlers = recorder.handlers();
    handlers.starting = [&] {
      picturesBefore = dropsOf(source, "video");
      soundBefore = dropsOf(source, "audio");
    };
    const brv::Subscription running = source.listen(std::move(handlers));
    end = take.emplace(library, source, recorder, options, console).run();
    ticksPerSecond = source.ticksPerSecond();
    drops = dropsText("pictures", picturesBefore, dropsOf(source, "video")) +
            dropsText("runs of sound", soundBefore, dropsOf(source, "audio"));
  }
  recorder.finish();
  console.endProgress();

  if (Interrupt::requested()) console.line("interrupted");
  out << reportText(recorder, ticksPerSecond) << drops << std::flush;
  if (end == End::unplugged && !recorder.failure()) throw Failure(unpluggedText(source));
  if (const auto shortfall = shortfallOf(recorder, source.error())) throw Failure(*shortfall);
  if (const auto shortfall = take->shortfallAt(end)) throw Failure(*shortfall);
}

}  // namespace brvhost
