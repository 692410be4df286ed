#include "Options.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <string_view>
#include <system_error>

#include "Failure.h"

namespace brvhost {

namespace {

constexpr unsigned bit(Command command) {
  return 1U << static_cast<unsigned>(command);
}
constexpr unsigned EveryCommand = ~0U;

struct CommandName {
  std::string_view name;
  Command command;
  std::size_t operandCount;
};

constexpr CommandName KnownCommands[] = {
    {"list", Command::list, 0},
    {"record", Command::record, 1},
    {"snapshot", Command::snapshot, 2},
    {"watch", Command::watch, 0},
};

double parseSeconds(const std::string& text) {
  constexpr double Longest = 366.0 * 24 * 3600;
  double seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size() || !(seconds > 0 && seconds <= Longest)) {
    throw UsageError("--seconds takes a number above 0, not \"" + text + "\"");
  }
  return seconds;
}

struct OptionName {
  std::string_view name;
  bool takesValue;
  unsigned commands;
  void (*apply)(Options& options, const std::string& value);
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
  Reader(const std::vector<std::string>& arguments, Options& options) : arguments_(arguments), options_(options) {}

  void read() {
    while (next_ < arguments_.size()) {
      const std::string& argument = arguments_[next_++];
      if (!onlyOperands_ && argument == "--") {
        onlyOperands_ = true;
      } else if (!onlyOperands_ && argument.size() > 1 && argument[0] == '-') {
        readOption(argument);
      } else if (options_.command == Command::none) {
        options_.command = commandNamed(argument);
      } else {
        operands_.push_back(argument);
      }
    }
    if (!options_.help && !options_.version) checkWhole();
  }

 private:
  void readOption(const std::string& argument) {
    const std::size_t equals = argument.find('=');
    const OptionName& option = optionNamed(argument == "-h" ? "--help" : argument.substr(0, equals));
    std::string value;
    if (option.takesValue) {
      if (equals != std::string::npos) {
        value = argument.substr(equals + 1);
      } else if (next_ < arguments_.size()) {
        value = arguments_[next_++];
      }
      if (value.empty()) throw UsageError(std::string(option.name) + " needs a value");
    } else if (equals != std::string::npos) {
      throw UsageError(std::string(option.name) + " takes no value");
    }
    if (option.commands != EveryCommand && std::find(given_.begin(), given_.end(), &option) != given_.end()) {
      throw UsageError(std::string(option.name) + " is given twice");
    }
    given_.push_back(&option);
    option.apply(options_, value);
  }

  void checkWhole() {
    const CommandName* const command = findCommand(options_.command);
    if (command == nullptr) throw UsageError("a command is needed: list, record, snapshot or watch; try --help");
    const std::string name(command->name);
    for (const OptionName* option : given_) {
      if ((option->commands & bit(options_.command)) == 0) {
        throw UsageError(std::string(option->name) + " does not go with " + name);
      }
    }
    if (operands_.size() < command->operandCount) {
      throw UsageError(name + " needs " + (operands_.empty() ? "a source" : "a file") + "; try " + name + " --help");
    }
    if (operands_.size() > command->operandCount) {
      throw UsageError("\"" + operands_[command->operandCount] + "\" is too much for " + name +
                       "; names with blanks want quotes");
    }
    if (!operands_.empty()) options_.source = operands_[0];
    if (options_.command == Command::snapshot) options_.output = operands_[1];
    if (options_.command == Command::record && options_.output.empty()) {
      throw UsageError("record needs --output; try record --help");
    }
  }

  const std::vector<std::string>& arguments_;
  Options& options_;
  std::size_t next_ = 0;
  bool onlyOperands_ = false;
  std::vector<std::string> operands_;
  std::vector<const OptionName*> given_;
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
