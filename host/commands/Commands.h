#pragma once

// What brvhost can be told to do. Results go to `out`, everything else to the console. Main thread. All throw Failure.

#include <brv.hpp>
#include <ostream>
#include <vector>

#include "commands/Options.h"
#include "common/Console.h"
#include "common/LogCondenser.h"
#include "monitor/Journal.h"

namespace brvhost {

/// Everything behind the command line: help or version, or the command with the module loaded for it. Returns the exit
/// code.
int run(const Options& options, std::ostream& out, Console& console);

void listSources(const brv::Library& library, const Options& options, std::ostream& out);
void takeSnapshot(const brv::Library& library, const Options& options, std::ostream& out);
void showSource(const brv::Library& library, const Options& options, std::ostream& out);
/// Returns the exit code, ExitFailed when the settings do not hold.
int setSource(const brv::Library& library, const Options& options, std::ostream& out);
/// `changes` has what was noticed since the last poll. `log` gets the module's log from elsewhere, as it does in what
/// else takes one: the command lets it look at the time.
void watchDevices(const brv::Library& library, std::vector<brv::Change>& changes, const Options& options,
                  std::ostream& out, LogCondenser& log);
/// Returns the exit code, ExitFailed when there is advice to give.
int examineSources(const brv::Library& library, const Options& options, std::ostream& out);
/// `journal` gets what `log` tells.
void monitorSources(const brv::Library& library, Journal& journal, const Options& options, std::ostream& out,
                    LogCondenser& log);
/// Throws Failure, after the report, when what is on the disk is not the whole recording.
void recordSource(const brv::Library& library, const Options& options, std::ostream& out, Console& console,
                  LogCondenser& log);

}  // namespace brvhost
