#pragma once

// What brvhost can be told to do. Results go to `out`, everything else to the console. Main thread. All throw Failure.

#include <ostream>

#include "Console.h"
#include "Options.h"
#include "Session.h"

namespace brvhost {

/// Everything behind the command line: help or version, or the command with the module loaded for it. Returns the exit
/// code.
int run(const Options& options, std::ostream& out, Console& console);

void listSources(Session& session, const Options& options, std::ostream& out);
void takeSnapshot(Session& session, const Options& options, std::ostream& out);
void showSource(Session& session, const Options& options, std::ostream& out);
/// Returns the exit code, ExitFailed when the settings do not hold.
int setSource(Session& session, const Options& options, std::ostream& out);
void watchDevices(Session& session, const Options& options, std::ostream& out);
/// Throws Failure, after the report, when what is on the disk is not the whole recording.
void recordSource(Session& session, const Options& options, std::ostream& out, Console& console);

}  // namespace brvhost
