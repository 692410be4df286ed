#include "Commands.h"

#include <CoreMediaIO/CMIOHardware.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <system_error>
#include <vector>

#include "Failure.h"
#include "FrameGrabber.h"
#include "Interrupt.h"
#include "PNGWriter.h"
#include "RGBImage.h"
#include "SourceSettings.h"

namespace brvhost {

namespace {

constexpr double FrameTimeoutSeconds = 5;
constexpr double ProbeTimeoutSeconds = 2;
constexpr int SnapshotFrame = 5;  // cameras settle their exposure meanwhile
constexpr double WatchPollSeconds = 0.1;

std::string describe(const FrameTiming& timing) {
  if (!timing.isKnown()) return "frame rate unknown";
  const Rational rate = timing.frameRate();
  std::string text = formatted("%.5g frames/s", rate.value());
  return text + formatted(" (%lld of %d ticks)", static_cast<long long>(timing.frameDuration), timing.ticksPerSecond);
}

std::string describe(const Source& source) {
  return source.identifier + "  (" + source.kind() + (source.isHDV ? ", HDV" : "") + ")";
}

void listPicture(Session& session, const Source& source, bool probe, std::ostream& out) {
  if (!probe) {
    const FrameTiming timing = session.timing(source.identifier);
    if (timing.isKnown()) out << "     picture  " << describe(timing) << "\n";
  } else if (const auto frame = grabFrame(session, source, 1, ProbeTimeoutSeconds)) {
    out << formatted("     picture  %d x %d, ", frame->displayWidth, frame->displayHeight) << describe(frame->timing)
        << "\n";
  } else if (!Interrupt::requested()) {
    out << "     picture  none came\n";
  }
}

void listSource(Session& session, const Source& source, std::size_t index, bool probe, std::ostream& out) {
  out << index << "  " << describe(source) << "\n";
  if (!source.deviceId.empty()) out << "     device   " << source.deviceId << "\n";
  if (source.providesVideo) listPicture(session, source, probe, out);
  if (const std::string error = session.takeError(source); !error.empty()) out << "     error    " << error << "\n";
}

bool contains(const std::vector<Source>& sources, const Source& source) {
  return std::find(sources.begin(), sources.end(), source) != sources.end();
}

void showChanges(const std::vector<Source>& before, const std::vector<Source>& now, std::ostream& out) {
  for (const Source& source : before) {
    if (!contains(now, source)) out << "- " << describe(source) << std::endl;
  }
  for (const Source& source : now) {
    if (!contains(before, source)) out << "+ " << describe(source) << std::endl;
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

void listSources(Session& session, const Options& options, std::ostream& out) {
  const std::vector<Source> sources = session.sources();
  out << session.groupName() << ": " << sources.size() << (sources.size() == 1 ? " source" : " sources") << " from "
      << session.provider() << "\n";
  for (std::size_t i = 0; i < sources.size(); ++i) {
    listSource(session, sources[i], i, options.probe, out);
    if (Interrupt::requested()) throw Failure("interrupted");
  }
  for (const auto& [name, reason] : session.unofferedDevices()) out << "-  " << name << "  (" << reason << ")\n";
}

void takeSnapshot(Session& session, const Options& options, std::ostream& out) {
  const Source source = session.find(options.source);
  if (!source.providesVideo) throw Failure(source.identifier + " has no picture");
  requireSettings(session, source, options.settings);
  const auto frame = grabFrame(session, source, SnapshotFrame, FrameTimeoutSeconds);
  if (!frame) {
    if (Interrupt::requested()) throw Failure("interrupted");
    session.requirePluggedIn(source);
    const std::string error = session.takeError(source);
    throw Failure(
        formatted("no picture came from %s within %g seconds", source.identifier.c_str(), FrameTimeoutSeconds) +
        (error.empty() ? "" : ": " + error));
  }

  const LockedPicture picture(frame->picture.get());
  if (!picture.isReadable()) throw Failure(source.identifier + " delivers pictures that this host cannot read");
  const PictureView& view = picture.view();
  const Rational aspect = pixelAspect(frame->pixelAspectRatio, frame->displayWidth, frame->displayHeight,
                                      static_cast<std::int64_t>(view.width), static_cast<std::int64_t>(view.height));
  const RGBImage image = withSquarePixels(convertToRGB(view, colorMatrix(frame->picture.get())), aspect);
  writePNG(options.output, image);
  out << formatted("%s: %zu x %zu", options.output.c_str(), image.width, image.height) << "\n";
}

void watchDevices(Session& session, const Options& options, std::ostream& out) {
  std::vector<Source> known = session.sources();
  for (const Source& source : known) out << "  " << describe(source) << "\n";
  out.flush();

  const auto start = std::chrono::steady_clock::now();
  const auto isOver = [&] {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    return Interrupt::requested() || (options.seconds && elapsed.count() >= *options.seconds);
  };
  while (!isOver()) {
    Session::pump(options.seconds ? std::min(WatchPollSeconds, *options.seconds) : WatchPollSeconds);
    std::vector<Source> now = session.sources();
    for (const int change : session.takeDeviceChanges()) {
      out << (change == BRV_DEVICE_STATE_ATTACHED ? "a device was plugged in" : "a device was removed")
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
  Module module(Module::locate(options.module, std::getenv("BRV_MODULE")));
  Session session(module, options.quiet ? nullptr : &console, options.language);
  switch (options.command) {
    case Command::list:
      listSources(session, options, out);
      break;
    case Command::record:
      recordSource(session, options, out, console);
      break;
    case Command::snapshot:
      takeSnapshot(session, options, out);
      break;
    case Command::show:
      showSource(session, options, out);
      break;
    case Command::set:
      return setSource(session, options, out);
    case Command::watch:
      watchDevices(session, options, out);
      break;
    case Command::none:
      break;
  }
  return ExitDone;
}

}  // namespace brvhost
