#pragma once

// The command line, read strictly: what is not understood is refused, never guessed.

#include <optional>
#include <string>
#include <vector>

#include "capture/Settings.h"

namespace brvhost {

enum class Command { none, list, show, set, record, snapshot, watch };

struct Options {
  Command command = Command::none;
  bool help = false;
  bool version = false;
  bool quiet = false;  ///< keep the module's log to ourselves
  std::string module;  ///< path; empty: look for it
  std::string rig;     ///< path; empty: leave the environment alone
  std::string language;

  std::string source;                  ///< show, set, record, snapshot
  std::string output;                  ///< record: base of the files' names; snapshot: the file
  std::optional<double> seconds;       ///< record, watch; absent: until interrupted
  std::vector<brv::Setting> settings;  ///< set, record, snapshot: in the order given
  bool untilIdle = false;              ///< record
  bool probe = false;                  ///< list
};

/// Reads the arguments behind the program's name. `localeName` is what LANG says, the default language, null for none.
/// Throws UsageError. With --help and --version the rest of the line need not be complete.
Options parseOptions(const std::vector<std::string>& arguments, const char* localeName);

/// "de_AT.UTF-8" -> "de"; "en" where there is no language in it.
std::string languageOfLocale(const char* localeName);

/// The help for a command, or for the program.
const char* helpText(Command command);

}  // namespace brvhost
