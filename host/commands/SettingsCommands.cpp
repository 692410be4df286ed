#include "capture/FrameGrabber.h"
#include "capture/SourceSettings.h"
#include "capture/Sources.h"
#include "commands/Commands.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

constexpr double FirstSampleSeconds = 2;

/// What the first samples of a source tell.
struct Glimpse {
  std::int32_t width = 0;
  std::int32_t height = 0;
  FrameTiming timing;
};

Glimpse glimpseOf(const brv::Library& library, const brv::Source& source) {
  if (!source.hasVideo()) return {0, 0, awaitTiming(library, source, FirstSampleSeconds)};
  const brv::Frame frame = grabFrame(library, source, 1, FirstSampleSeconds);
  return frame ? Glimpse{frame.record().width, frame.record().height, timingOf(source)} : Glimpse{};
}

std::string describe(const Glimpse& glimpse) {
  const FrameTiming& timing = glimpse.timing;
  std::string text;
  if (glimpse.width > 0 && glimpse.height > 0) {
    text += formatted("  frame size      %d x %d\n", glimpse.width, glimpse.height);
  }
  if (timing.isKnown()) {
    text += formatted("  frame rate      %.5g frames a second\n", timing.frameRate().value());
    text += formatted("  frame duration  %lld ticks\n", static_cast<long long>(timing.frameDuration));
  }
  if (timing.ticksPerSecond > 0) text += formatted("  timescale       %d ticks a second\n", timing.ticksPerSecond);
  return text;
}

}  // namespace

void showSource(const brv::Library& library, const Options& options, std::ostream& out) {
  const brv::Source source = findSource(library, options.source);
  // First of all a start: it is when the module chooses a format, and with it the frame rates.
  const Glimpse glimpse = glimpseOf(library, source);
  requirePluggedIn(source);
  out << describe(source) << "\n";
  for (const Parameter& parameter : parametersOf(source)) {
    out << "  " << parameter.name << "\n" << optionsTable(parameter);
  }
  out << describe(glimpse);
  if (const std::string error = source.error(); !error.empty()) out << "  error           " << error << "\n";
}

int setSource(const brv::Library& library, const Options& options, std::ostream& out) {
  const brv::Source source = findSource(library, options.source);
  const SettingsOutcome outcome = applySettings(library, source, options.settings);
  out << source.id() << ": " << settingsText(options.settings) << "\n";
  out << formatted("  answer          %d (%s)\n", outcome.answer.code, outcome.answer ? "done" : "failed");
  if (!outcome.answer) {
    out << "  message         " << (outcome.answer.message.empty() ? "the module has none" : outcome.answer.message)
        << "\n";
  }
  if (outcome.unmet) out << "  not taken       " << *outcome.unmet << "\n";
  out << selectionTable(outcome.now);
  return outcome.isDone() ? ExitDone : ExitFailed;
}

}  // namespace brvhost
