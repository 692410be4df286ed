#include <algorithm>
#include <chrono>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "capture/MediumWatch.h"
#include "capture/SourceSettings.h"
#include "capture/Sources.h"
#include "commands/Commands.h"
#include "commands/Facts.h"
#include "commands/ReportPage.h"
#include "commands/TakeReport.h"
#include "common/Failure.h"
#include "common/Interrupt.h"
#include "common/LocalTime.h"
#include "record/RecordReport.h"
#include "record/Recorder.h"

namespace brvhost {

namespace {

using Clock = MediumWatch::Clock;

constexpr brv::Seconds PollTime(0.02);
constexpr std::chrono::seconds ProgressTime(1);
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
  Take(const brv::Library& library, const brv::Source& source, const Options& options, const TakeOptions& take,
       Recorder& recorder, Console& console, LogCondenser& log)
      : _library(library),
        _source(source),
        _options(options),
        _take(take),
        _recorder(recorder),
        _console(console),
        _log(log) {
    if (take.records(Medium::video)) watch("picture", &TakeAccount::pictures);
    if (take.records(Medium::audio)) watch("sound", &TakeAccount::sound);
  }

  /// Runs the main loop until the recording is over.
  End run() {
    start();
    const End end = runUntilEnd();
    _running.reset();
    noteDrops();
    return end;
  }

  /// Tells the diary what is known of the holes in it.
  void explainHoles() {
    if (!_take.diary || !_take.diary->hasUnexplained()) return;
    noteDrops();
    const TakeDrops since = _drops.since(_dropsExplained);
    _dropsExplained = _drops;
    const std::string otherwise = std::exchange(_wasUnplugged, false) ? "the source was unplugged" : "none came";
    const auto reason = [&](const Drops& drops) {
      const std::string text = reasonsText(drops);
      return text.empty() ? otherwise : text;
    };
    _take.diary->explain(reason(since.pictures), reason(since.sound));
  }

  /// Of the last start.
  const Json& settings() const { return _settings; }

  const TakeDrops& drops() const { return _drops; }

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
  void watch(const char* name, MediumAccount TakeAccount::*medium) {
    const auto state = [this, medium] {
      const MediumAccount account = _recorder.account().*medium;
      return MediumState{account.delivered, account.endSeconds, account.sampleSeconds, account.isComplete};
    };
    _media.emplace_back(name, state, _options.seconds, _start);
  }

  void start() {
    brv::Handlers handlers = _recorder.handlers();
    handlers.starting = [this] {
      _dropsSeen = TakeDrops::of(_source);
      if (_take.diary && _source.isPluggedIn()) _settings = settingsOf(_source);
      if (_isTold || _options.quiet) return;
      _isTold = true;  // once the format is chosen
      if (const std::string outlook = outlookText(_source, _take); !outlook.empty()) _console.line(outlook);
    };
    _running = _source.listen(std::move(handlers));
  }

  /// Adds what the module has dropped since the last time; a source that has gone tells no more.
  void noteDrops() {
    if (!_source.isPluggedIn()) return;
    const TakeDrops now = TakeDrops::of(_source);
    _drops += now.since(_dropsSeen);
    _dropsSeen = now;
  }

  End runUntilEnd() {
    Clock::time_point nextProgress = _start + ProgressTime;
    while (!_recorder.isComplete() && !isAllComplete()) {
      _library.poll(PollTime);
      const Clock::time_point now = Clock::now();
      _log.look(now);
      const auto progress = [&] {
        return progressText(secondsBetween(_start, now), _recorder.account(), _recorder.takeLevel());
      };
      if (Interrupt::requested()) return End::interrupted;
      if (Interrupt::takeInquiry()) {
        noteDrops();
        _console.line(progress() + "\n" + reportText(_recorder.account(), _drops));
      }
      if (_recorder.account().failure) return End::failed;  // what is left would hardly fare better
      if (!_source.isPluggedIn() && !isBack()) return Interrupt::requested() ? End::interrupted : End::unplugged;
      for (MediumWatch& medium : _media) medium.look(now);
      if (_options.untilIdle && allThatCameIsIdle()) return End::idle;
      tellNews();
      for (const std::string& news : _recorder.takeNews()) tell(news);
      explainHoles();
      if (_options.seconds && isOverdue(secondsBetween(_start, now))) return End::overdue;
      if (now >= nextProgress) {
        noteDrops();
        if (!_options.quiet) _console.progress(progress());
        nextProgress = now + ProgressTime;
      }
    }
    return End::complete;
  }

  /// Waits for the source that has gone, as long as was asked for, and starts it again.
  bool isBack() {
    if (!_options.waitSeconds) return false;
    _running.reset();
    _wasUnplugged = true;
    tell(unpluggedText(_source) + formatted(", waiting for it for %g s", *_options.waitSeconds));
    const Clock::time_point gone = Clock::now();
    while (!_source.isPluggedIn()) {
      if (Interrupt::requested() || secondsBetween(gone, Clock::now()) > *_options.waitSeconds) return false;
      _library.poll(PollTime);
    }
    tell(_source.id() + " is back");
    start();
    return true;
  }

  void tell(const std::string& news) {
    _console.line(news);
    if (_take.diary) _take.diary->remark(news);
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
      if (const auto news = medium.takeNews()) tell(*news);
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
  const Options& _options;
  const TakeOptions& _take;
  bool _isTold = false;  ///< of what the disk will hold
  Recorder& _recorder;
  Console& _console;
  LogCondenser& _log;
  const Clock::time_point _start = Clock::now();
  std::vector<MediumWatch> _media;
  TakeDrops _drops, _dropsSeen, _dropsExplained;
  bool _wasUnplugged = false;  ///< since the last holes
  Json _settings = Json::array();
  brv::Subscription _running;
};

}  // namespace

void recordSource(const brv::Library& library, const Options& options, std::ostream& out, Console& console,
                  LogCondenser& log) {
  const brv::Source source = findSource(library, options.source);
  TakeDiary diary;
  const TakeOptions take{.target = options.output,
                         .encoding = encodingFor(options.output, options.videoCodec, options.audioCodec),
                         .hasVideo = source.hasVideo(),
                         .hasAudio = source.hasAudio(),
                         .seconds = options.seconds,
                         .segmentSeconds = options.segmentSeconds,
                         .isInterrupted = Interrupt::requested,
                         .diary = options.report.empty() ? nullptr : &diary};
  if (!take.records(Medium::video) && !take.records(Medium::audio)) {
    throw Failure(source.id() + " has nothing to record to " + take.target);
  }
  if (take.segmentSeconds && (take.target == "-" || isURL(take.target)))
    throw UsageError("--segment begins further files, which " + take.target + " is not");
  requireSettings(library, source, options.settings);  // before the files of an earlier recording are replaced
  std::optional<OutputFile> page;
  if (take.diary) page.emplace(options.report);  // which fails before there is work to lose
  const Json facts{{"source", source.id()},
                   {"devices from", library.property("provider").value_or("")},
                   {"began", localTime("%F %T")}};
  if (OutputFile::lacksReader(take.target)) console.line("waiting for a reader of " + take.target);
  if (isURL(take.target)) console.line("connecting to " + take.target);

  Recorder recorder(source, take);
  Take running(library, source, options, take, recorder, console, log);
  const End end = running.run();
  recorder.finish();
  console.endProgress();

  if (Interrupt::requested()) console.line("interrupted");
  running.explainHoles();
  const TakeAccount account = recorder.account();
  const std::string error = source.isPluggedIn() ? source.error() : "";
  std::optional<std::string> shortfall;
  if (end == End::unplugged && !account.failure) shortfall = unpluggedText(source);
  if (!shortfall) shortfall = shortfallOf(account, take, options.limit, error);
  if (!shortfall) shortfall = running.shortfallAt(end);
  if (shortfall && !error.empty() && shortfall->find(error) == shortfall->npos) *shortfall += ": " + error;
  std::ostream& report = take.target == "-" ? std::cerr : out;
  if (options.json) {
    writeJSON(report, reportJSON(account, running.drops(), shortfall));
  } else {
    report << reportText(account, running.drops()) << std::flush;
  }
  if (page) {
    const std::string text = takePage(facts, running.settings(), diary.notes(), account, running.drops(), shortfall);
    page->write(text.data(), text.size());
    page->close();
  }
  if (shortfall) throw Failure(*shortfall);
}

}  // namespace brvhost
