#include <chrono>
#include <optional>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "Interrupt.h"
#include "RecordReport.h"
#include "Recorder.h"
#include "SourceSettings.h"

namespace brvhost {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double PollSeconds = 0.02;
constexpr double ProgressSeconds = 1;
constexpr double IdleSeconds = 2;
/// How much longer than asked a recording may take by the clock: a camera may be slow to begin, and frames may be
/// missing.
constexpr double GraceSeconds = 5;

double secondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

/// Sees when nothing comes any more.
class IdleWatch {
 public:
  /// Whether samples have come, but none for IdleSeconds.
  bool isIdle(std::int64_t sampleCount, Clock::time_point now) {
    if (sampleCount != _lastCount) {
      _lastCount = sampleCount;
      _lastChange = now;
    }
    return _lastCount > 0 && secondsBetween(_lastChange, now) >= IdleSeconds;
  }

 private:
  std::int64_t _lastCount = 0;
  Clock::time_point _lastChange;
};

bool isPluggedIn(const Session& session, const Source& source) {
  for (const Source& other : session.sources()) {
    if (other.identifier == source.identifier) return true;
  }
  return false;
}

/// Runs the main loop until the recording is over. Returns what ended it before the user or the source's media did.
std::optional<std::string> runUntilOver(Session& session, const Source& source, const Recorder& recorder,
                                        const Options& options, Console& console) {
  const Clock::time_point start = Clock::now();
  Clock::time_point nextProgress = start + std::chrono::seconds(1);
  IdleWatch idle;
  while (!recorder.isComplete()) {
    Session::pump(PollSeconds);
    const Clock::time_point now = Clock::now();
    if (Interrupt::requested()) return std::nullopt;
    if (Interrupt::takeInquiry()) {
      console.line(progressText(secondsBetween(start, now), recorder) + "\n" +
                   reportText(recorder, session.timing(source.identifier).ticksPerSecond));
    }
    if (recorder.failure()) return std::nullopt;  // what is left of the recording would hardly fare better
    if (!session.takeDeviceChanges().empty() && !isPluggedIn(session, source)) {
      return source.identifier + " was unplugged";
    }
    const bool isIdle = idle.isIdle(recorder.sampleCount(), now);
    if (options.untilIdle && isIdle) return std::nullopt;
    if (options.seconds && secondsBetween(start, now) >= *options.seconds + GraceSeconds) {
      return "the source did not deliver as much as was asked for";
    }
    if (now >= nextProgress) {
      console.progress(progressText(secondsBetween(start, now), recorder));
      nextProgress += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(ProgressSeconds));
    }
  }
  return std::nullopt;
}

}  // namespace

void recordSource(Session& session, const Options& options, std::ostream& out, Console& console) {
  const Source source = session.find(options.source);
  if (!source.providesVideo && !source.providesAudio) throw Failure(source.identifier + " has nothing to record");
  requireSettings(session, source, options.settings);  // before the files of an earlier recording are replaced

  Recorder recorder(options.output, {source.providesVideo, source.providesAudio}, options.seconds,
                    [&session, &source] { return session.timing(source.identifier); });
  std::optional<std::string> earlyEnd;
  std::int32_t ticksPerSecond = 0;
  {
    const RunningSource running(session, source);
    session.start(source, Recorder::videoArrived, Recorder::audioArrived, &recorder, [&] { recorder.arm(); });
    earlyEnd = runUntilOver(session, source, recorder, options, console);
    ticksPerSecond = session.timing(source.identifier).ticksPerSecond;
  }
  recorder.finish();
  console.endProgress();

  if (Interrupt::requested()) console.line("interrupted");
  out << reportText(recorder, ticksPerSecond) << std::flush;
  if (const auto shortfall = shortfallOf(recorder)) throw Failure(*shortfall);
  if (earlyEnd) throw Failure(*earlyEnd);
}

}  // namespace brvhost
