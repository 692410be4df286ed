#include "Commands.h"
#include "Failure.h"
#include "FrameGrabber.h"
#include "SourceSettings.h"

namespace brvhost {

namespace {

constexpr double FirstSampleSeconds = 2;

/// What the first samples of a source tell.
struct Glimpse {
  std::int32_t width = 0;
  std::int32_t height = 0;
  FrameTiming timing;
};

Glimpse glimpseOf(Session& session, const Source& source) {
  if (!source.providesVideo) return {0, 0, awaitTiming(session, source, FirstSampleSeconds)};
  const auto frame = grabFrame(session, source, 1, FirstSampleSeconds);
  return frame ? Glimpse{frame->displayWidth, frame->displayHeight, frame->timing} : Glimpse{};
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

void showSource(Session& session, const Options& options, std::ostream& out) {
  const Source source = session.find(options.source);
  // First of all a start: it is when the module chooses a format, and with it the frame rates.
  const Glimpse glimpse = glimpseOf(session, source);
  session.requirePluggedIn(source);
  out << source.identifier << "  (" << source.kind() << (source.isHDV ? ", HDV" : "") << ")\n";
  for (const Parameter& parameter : parametersOf(session, source)) {
    out << "  " << parameter.name << "\n" << optionsTable(parameter);
  }
  out << describe(glimpse);
  if (const std::string error = session.takeError(source); !error.empty()) out << "  error           " << error << "\n";
}

int setSource(Session& session, const Options& options, std::ostream& out) {
  const Source source = session.find(options.source);
  const SettingsOutcome outcome = applySettings(session, source, options.settings);
  out << source.identifier << ": " << settingsText(options.settings) << "\n";
  out << formatted("  answer          %d (%s)\n", outcome.answer, outcome.answer > 0 ? "done" : "failed");
  if (outcome.answer <= 0) {
    out << "  message         " << (outcome.message.empty() ? "the module has none" : outcome.message) << "\n";
  }
  if (outcome.unmet) out << "  not taken       " << *outcome.unmet << "\n";
  out << selectionTable(outcome.now);
  return outcome.isDone() ? ExitDone : ExitFailed;
}

}  // namespace brvhost
