#pragma once

// The command line, read strictly: what is not understood is refused, never guessed.

#include <optional>
#include <string>
#include <vector>

#include "capture/Settings.h"
#include "record/MissingLimit.h"

namespace brvhost {

enum class Command { none, list, show, set, record, snapshot, watch, doctor, monitor };

struct Options {
  Command command = Command::none;
  std::string answer;  ///< what --help or --version asks for; nothing else is done then
  bool quiet = false;  ///< keep the module's log to ourselves
  std::string module;  ///< path; empty: look for it
  std::string rig;     ///< path; empty: this machine's own devices
  std::string language;

  std::string source;                    ///< show, set, record, snapshot
  std::string output;                    ///< record: file, URL or "-"; snapshot: the file; doctor: the page
  std::optional<double> seconds;         ///< record, watch, monitor; absent: until interrupted
  std::vector<WantedSetting> settings;   ///< set, record, snapshot: in the order in which they are set
  std::string videoCodec, audioCodec;    ///< record; empty: what suits the file
  std::optional<double> segmentSeconds;  ///< record
  std::string report;                    ///< record: the page about it
  std::optional<double> waitSeconds;     ///< record: for a source that is unplugged meanwhile
  MissingLimit limit;                    ///< record
  bool untilIdle = false;                ///< record
  bool probe = false;                    ///< list
  bool capture = false;                  ///< watch
  bool formats = false;                  ///< list
  bool json = false;                     ///< all but snapshot and monitor
  std::string address = "127.0.0.1";     ///< monitor: where it listens
  int port = 8730;                       ///< monitor; 0: any
  double framesPerSecond = 10;           ///< monitor: of its pictures
  std::string folder = ".";              ///< monitor: of its recordings
};

/// Reads the arguments after the program's name, and CAPTURE_RIG. `localeName` is what LANG says, the default language,
/// null for none. Throws UsageError.
Options parseOptions(const std::vector<std::string>& arguments, const char* localeName);

}  // namespace brvhost
