#include "commands/Commands.h"

#include <CoreMediaIO/CMIOHardware.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "capture/Translations.h"
#include "common/Failure.h"
#include "common/Interrupt.h"
#include "record/AV.h"

namespace brvhost {

namespace {

constexpr int RefusalLevel = 3;  // of the module's log: what it refused, or could not set up

/// A machine with nothing plugged in is all right, and so is one whose media server has not started; a rig that cannot
/// be read is not.
void useRig(const std::string& path) {
  if (path.empty()) return;
  if (path != "demo" && ::access(path.c_str(), R_OK) != 0) {
    throw Failure("cannot read " + path + ": " + std::generic_category().message(errno));
  }
  ::setenv("CAPTURE_RIG", path.c_str(), 1);
  const CMIOObjectPropertyAddress devices{kCMIOHardwarePropertyDevices, kCMIOObjectPropertyScopeGlobal,
                                          kCMIOObjectPropertyElementMaster};
  CMIOObjectID first = 0;
  if (CMIOObjectGetPropertyData(kCMIOObjectSystemObject, &devices, 0, nullptr, sizeof first, nullptr, &first) !=
      kCMIOHardwareNoError) {
    throw Failure("what is plugged into this machine cannot be found out");
  }
}

}  // namespace

int run(const Options& options, std::ostream& out, Console& console) {
  if (!options.answer.empty()) {
    out << options.answer;
    return ExitDone;
  }

  av_log_set_level(AV_LOG_ERROR);
  useRig(options.rig);
  const Interrupt interrupt;
  std::vector<brv::Change> changes;
  Journal journal;
  LogCondenser log([&](int level, std::string_view line) {
    if (!options.quiet) console.line(line);
    journal.add(level == RefusalLevel ? "refusal" : "log", line);
  });
  brv::Options opened{.module = options.module,
                      .language = options.language,
                      .translate = translated,
                      .changed = [&](brv::Change change) { changes.push_back(change); }};
  if (!opened.module.empty() && opened.module.find('/') == opened.module.npos) opened.module.insert(0, "./");
  if (!options.quiet || options.command == Command::monitor) {
    opened.log = [&](int level, std::string_view line) { log.line(level, line, LogCondenser::Clock::now()); };
  }
  const brv::Library library(std::move(opened));
  switch (options.command) {
    case Command::list:
      listSources(library, options, out);
      break;
    case Command::record:
      recordSource(library, options, out, console, log);
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
      watchDevices(library, changes, options, out, log);
      break;
    case Command::doctor:
      return examineSources(library, options, out);
    case Command::monitor:
      monitorSources(library, journal, options, out, log);
      break;
    case Command::none:
      break;
  }
  return ExitDone;
}

}  // namespace brvhost
