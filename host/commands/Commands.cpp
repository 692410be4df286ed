#include "commands/Commands.h"

#include <CoreMediaIO/CMIOHardware.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <system_error>
#include <utility>
#include <vector>

#include "capture/FrameGrabber.h"
#include "capture/SourceSettings.h"
#include "capture/Sources.h"
#include "capture/Translations.h"
#include "common/Failure.h"
#include "common/Interrupt.h"
#include "picture/PNGWriter.h"
#include "picture/RGBImage.h"

namespace brvhost {

namespace {

constexpr double FrameTimeoutSeconds = 5;
constexpr double ProbeTimeoutSeconds = 2;
constexpr int SnapshotFrame = 5;  // cameras settle their exposure meanwhile
constexpr double WatchPollSeconds = 0.1;

std::string rateText(const FrameTiming& timing) {
  if (!timing.isKnown()) return "frame rate unknown";
  const Rational rate = timing.frameRate();
  std::string text = formatted("%.5g frames/s", rate.value());
  return text + formatted(" (%lld of %d ticks)", static_cast<long long>(timing.frameDuration), timing.ticksPerSecond);
}

/// The identifier of the capture device, the microphone's where there is sound; nothing where it is not known.
std::string deviceLine(const brv::Source& source) {
  const std::string id = source.property("device_id").value_or("");
  return id.empty() ? id : "     device   " + id + "\n";
}

void listPicture(const brv::Library& library, const brv::Source& source, bool probe, std::ostream& out) {
  if (!probe) {
    const FrameTiming timing = timingOf(source);
    if (timing.isKnown()) out << "     picture  " << rateText(timing) << "\n";
  } else if (const brv::Frame frame = grabFrame(library, source, 1, ProbeTimeoutSeconds)) {
    out << formatted("     picture  %d x %d, ", frame.record().width, frame.record().height)
        << rateText(timingOf(source)) << "\n";
  } else if (!Interrupt::requested()) {
    out << "     picture  none came\n";
  }
}

void listSource(const brv::Library& library, const brv::Source& source, std::size_t index, bool probe,
                std::ostream& out) {
  out << index << "  " << describe(source) << "\n" << deviceLine(source);
  if (source.hasVideo()) listPicture(library, source, probe, out);
  if (const std::string error = source.error(); !error.empty()) out << "     error    " << error << "\n";
}

/// A source as `watch` tells it from others.
struct Known {
  std::string text;
  std::string deviceLine;

  bool operator==(const Known&) const = default;
};

std::vector<Known> knownOf(const brv::Library& library) {
  std::vector<Known> known;
  for (const brv::Source& source : library.sources()) known.push_back({describe(source), deviceLine(source)});
  return known;
}

void showChanges(const std::vector<Known>& before, const std::vector<Known>& now, std::ostream& out) {
  const auto contains = [](const auto& all, const Known& one) {
    return std::find(all.begin(), all.end(), one) != all.end();
  };
  for (const Known& source : before) {
    if (!contains(now, source)) out << "- " << source.text << std::endl;
  }
  for (const Known& source : now) {
    if (!contains(before, source)) out << "+ " << source.text << std::endl;
  }
}

void useRig(const std::string& path) {
  if (path.empty()) return;
  if (path != "demo" && ::access(path.c_str(), R_OK) != 0) {
    throw Failure("cannot read " + path + ": " + std::generic_category().message(errno));
  }
  ::setenv("CAPTURE_RIG", path.c_str(), 1);
}

/// A machine with nothing plugged in is all right, and so is one whose media server has not started; a rig that cannot
/// be read is not.
void requireReadableRig() {
  const char* const rig = std::getenv("CAPTURE_RIG");
  if (!rig || !*rig) return;
  const CMIOObjectPropertyAddress devices{kCMIOHardwarePropertyDevices, kCMIOObjectPropertyScopeGlobal,
                                          kCMIOObjectPropertyElementMaster};
  CMIOObjectID first = 0;
  if (CMIOObjectGetPropertyData(kCMIOObjectSystemObject, &devices, 0, nullptr, sizeof first, nullptr, &first) !=
      kCMIOHardwareNoError) {
    throw Failure("what is plugged into this machine cannot be found out");
  }
}

}  // namespace

void listSources(const brv::Library& library, const Options& options, std::ostream& out) {
  const std::vector<brv::Source> sources = library.sources();
  out << library.name() << ": " << sources.size() << (sources.size() == 1 ? " source" : " sources") << " from "
      << library.property("provider").value_or("") << "\n";
  for (std::size_t i = 0; i < sources.size(); ++i) {
    listSource(library, sources[i], i, options.probe, out);
    if (Interrupt::requested()) throw Failure("interrupted");
  }
  for (const brv::Field& field : brv::fieldsOf(library.property("unoffered_devices").value_or(""))) {
    if (field.name == "name") out << "-  " << field.value;
    if (field.name == "reason") out << "  (" << field.value << ")\n";
  }
}

void takeSnapshot(const brv::Library& library, const Options& options, std::ostream& out) {
  const brv::Source source = findSource(library, options.source);
  if (!source.hasVideo()) throw Failure(source.id() + " has no picture");
  requireSettings(library, source, options.settings);
  const brv::Frame frame = grabFrame(library, source, SnapshotFrame, FrameTimeoutSeconds);
  if (!frame) {
    if (Interrupt::requested()) throw Failure("interrupted");
    requirePluggedIn(source);
    const std::string error = source.error();
    throw Failure(formatted("no picture came from %s within %g seconds", source.id().c_str(), FrameTimeoutSeconds) +
                  (error.empty() ? "" : ": " + error));
  }

  const brv::Pixels pixels = frame.pixels();
  const RGBImage image =
      withSquarePixels(convertToRGB(viewOf(pixels), colorMatrix(frame.pixelBuffer())), pixelAspectOf(frame));
  writePNG(options.output, image);
  out << formatted("%s: %zu x %zu", options.output.c_str(), image.width, image.height) << "\n";
}

void watchDevices(const brv::Library& library, std::vector<brv::Change>& changes, const Options& options,
                  std::ostream& out) {
  std::vector<Known> known = knownOf(library);
  for (const Known& source : known) out << "  " << source.text << "\n";
  out.flush();

  const auto start = std::chrono::steady_clock::now();
  const auto isOver = [&] {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    return Interrupt::requested() || (options.seconds && elapsed.count() >= *options.seconds);
  };
  while (!isOver()) {
    library.poll(brv::Seconds(options.seconds ? std::min(WatchPollSeconds, *options.seconds) : WatchPollSeconds));
    std::vector<Known> now = knownOf(library);
    for (const brv::Change change : std::exchange(changes, {})) {
      out << (change == brv::Change::Attached ? "a device was plugged in" : "a device was removed")
          << (now == known ? "; every source stays as it is" : "") << std::endl;
    }
    showChanges(known, now, out);
    known = std::move(now);
  }
}

int run(const Options& options, std::ostream& out, Console& console) {
  if (options.help) {
    out << helpText(options.command);
    return ExitDone;
  }
  if (options.version) {
    out << "brvhost " BRVHOST_VERSION "\n";
    return ExitDone;
  }

  useRig(options.rig);
  requireReadableRig();
  const Interrupt interrupt;
  std::vector<brv::Change> changes;
  brv::Options opened{.module = options.module,
                      .language = options.language,
                      .translate = translated,
                      .changed = [&](brv::Change change) { changes.push_back(change); }};
  if (!opened.module.empty() && opened.module.find('/') == opened.module.npos) opened.module.insert(0, "./");
  if (!options.quiet) opened.log = [&](int, std::string_view line) { console.line(line); };
  const brv::Library library(std::move(opened));
  switch (options.command) {
    case Command::list:
      listSources(library, options, out);
      break;
    case Command::record:
      recordSource(library, options, out, console);
      break;
    case Command::snapshot:
      takeSnapshot(library, options, out);
      break;
    case Command::show:
      showSource(library, options, out);
      break;
    case Command::set:
      return setSource(library, options, out);
    case Command::watch:
      watchDevices(library, changes, options, out);
      break;
    case Command::none:
      break;
  }
  return ExitDone;
}

}  // namespace brvhost
