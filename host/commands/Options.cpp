#include "commands/Options.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <limits>
#include <string_view>
#include <system_error>

#include "common/Failure.h"

namespace brvhost {

namespace {

constexpr unsigned bit(Command command) {
  return 1U << static_cast<unsigned>(command);
}
constexpr unsigned EveryCommand = ~0U;

constexpr std::size_t AnyNumber = std::numeric_limits<std::size_t>::max();

struct CommandName {
  std::string_view name;
  Command command;
  std::size_t leastOperands;
  std::size_t mostOperands;
  const char* secondOperand;  ///< what stands behind the source
};

constexpr CommandName KnownCommands[] = {
    {"list", Command::list, 0, 0, nullptr},
    {"show", Command::show, 1, 1, nullptr},
    {"set", Command::set, 2, AnyNumber, "a setting, NAME=INDEX"},
    {"record", Command::record, 1, 1, nullptr},
    {"snapshot", Command::snapshot, 2, 2, "a file"},
    {"watch", Command::watch, 0, 0, nullptr},
};

double parseSeconds(const std::string& text) {
  constexpr double Longest = 366.0 * 24 * 3600;
  double seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size() || !(seconds > 0 && seconds <= Longest)) {
    throw UsageError("--seconds takes a number above 0, up to 366 days, not \"" + text + "\"");
  }
  return seconds;
}

struct OptionName {
  std::string_view name;
  bool takesValue;
  unsigned commands;
  void (*apply)(Options& options, const std::string& value);
  bool repeats = false;
};

constexpr OptionName KnownOptions[] = {
    {"--help", false, EveryCommand, [](Options& options, const std::string&) { options.help = true; }},
    {"--version", false, EveryCommand, [](Options& options, const std::string&) { options.version = true; }},
    {"--quiet", false, EveryCommand, [](Options& options, const std::string&) { options.quiet = true; }},
    {"--module", true, EveryCommand, [](Options& options, const std::string& value) { options.module = value; }},
    {"--rig", true, EveryCommand, [](Options& options, const std::string& value) { options.rig = value; }},
    {"--language", true, EveryCommand, [](Options& options, const std::string& value) { options.language = value; }},
    {"--seconds", true, bit(Command::record) | bit(Command::watch),
     [](Options& options, const std::string& value) { options.seconds = parseSeconds(value); }},
    {"--output", true, bit(Command::record),
     [](Options& options, const std::string& value) { options.output = value; }},
    {"--set", true, bit(Command::record) | bit(Command::snapshot),
     [](Options& options, const std::string& value) { options.settings.push_back(parseSetting(value)); }, true},
    {"--until-idle", false, bit(Command::record),
     [](Options& options, const std::string&) { options.untilIdle = true; }},
    {"--probe", false, bit(Command::list), [](Options& options, const std::string&) { options.probe = true; }},
};

const CommandName* findCommand(Command command) {
  const auto* const found = std::find_if(std::begin(KnownCommands), std::end(KnownCommands),
                                         [&](auto& entry) { return entry.command == command; });
  return found == std::end(KnownCommands) ? nullptr : found;
}

Command commandNamed(const std::string& name) {
  for (const CommandName& entry : KnownCommands) {
    if (entry.name == name) return entry.command;
  }
  throw UsageError("there is no command \"" + name + "\"; try --help");
}

const OptionName& optionNamed(const std::string& name) {
  for (const OptionName& entry : KnownOptions) {
    if (entry.name == name) return entry;
  }
  throw UsageError("there is no option " + name + "; try --help");
}

/// Sorts a command line into its command, what belongs to that, and the options, which may stand anywhere.
class Reader {
 public:
  Reader(const std::vector<std::string>& arguments, Options& options) : _arguments(arguments), _options(options) {}

  void read() {
    while (_next < _arguments.size()) {
      const std::string& argument = _arguments[_next++];
      if (!_onlyOperands && argument == "--") {
        _onlyOperands = true;
      } else if (!_onlyOperands && argument.size() > 1 && argument[0] == '-') {
        readOption(argument);
      } else if (_options.command == Command::none) {
        _options.command = commandNamed(argument);
      } else {
        _operands.push_back(argument);
      }
    }
    if (!_options.help && !_options.version) checkWhole();
  }

 private:
  void readOption(const std::string& argument) {
    const std::size_t equals = argument.find('=');
    const OptionName& option = optionNamed(argument == "-h" ? "--help" : argument.substr(0, equals));
    std::string value;
    if (option.takesValue) {
      if (equals != std::string::npos) {
        value = argument.substr(equals + 1);
      } else if (_next < _arguments.size()) {
        value = _arguments[_next++];
      }
      if (value.empty()) throw UsageError(std::string(option.name) + " needs a value");
    } else if (equals != std::string::npos) {
      throw UsageError(std::string(option.name) + " takes no value");
    }
    if ((option.takesValue || option.commands != EveryCommand) && !option.repeats &&
        std::find(_given.begin(), _given.end(), &option) != _given.end()) {
      throw UsageError(std::string(option.name) + " is given twice");
    }
    _given.push_back(&option);
    option.apply(_options, value);
  }

  void checkWhole() {
    const CommandName* const command = findCommand(_options.command);
    if (command == nullptr)
      throw UsageError("a command is needed: list, show, set, record, snapshot or watch; try --help");
    const std::string name(command->name);
    for (const OptionName* option : _given) {
      if ((option->commands & bit(_options.command)) == 0) {
        throw UsageError(std::string(option->name) + " does not go with " + name);
      }
    }
    if (_operands.size() < command->leastOperands) {
      const std::string missing = _operands.empty() ? "a source" : command->secondOperand;
      throw UsageError(name + " needs " + missing + "; try " + name + " --help");
    }
    if (_operands.size() > command->mostOperands) {
      throw UsageError("\"" + _operands[command->mostOperands] + "\" is too much for " + name +
                       "; names with blanks want quotes");
    }
    if (!_operands.empty()) _options.source = _operands[0];
    if (_options.command == Command::snapshot) _options.output = _operands[1];
    if (_options.command == Command::set) {
      std::transform(_operands.begin() + 1, _operands.end(), std::back_inserter(_options.settings), parseSetting);
    }
    if (_options.command == Command::record && _options.output.empty()) {
      throw UsageError("record needs --output; try record --help");
    }
  }

  const std::vector<std::string>& _arguments;
  Options& _options;
  std::size_t _next = 0;
  bool _onlyOperands = false;
  std::vector<std::string> _operands;
  std::vector<const OptionName*> _given;
};

}  // namespace

std::string languageOfLocale(const char* localeName) {
  const std::string_view name = localeName == nullptr ? std::string_view() : localeName;
  const std::string_view language = name.substr(0, name.find_first_of("_.@"));
  return language.empty() || language == "C" || language == "POSIX" ? "en" : std::string(language);
}

Options parseOptions(const std::vector<std::string>& arguments, const char* localeName) {
  Options options;
  options.language = languageOfLocale(localeName);
  Reader(arguments, options).read();
  return options;
}

}  // namespace brvhost
