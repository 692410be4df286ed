#include "commands/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>
#include <string_view>

#include "common/Failure.h"
#include "picture/ImageFile.h"

namespace brvhost {

namespace {

constexpr std::size_t HelpColumn = 22;

constexpr const char* ProgramHelp =
    R"(SOURCE is a source's position in the list, its name or a part of it that fits no other, or the
unique ID of its camera or microphone. The case of names does not matter.

NAME=CHOICE, wherever settings are made: NAME is "Video Settings", "Video FPS" or "Audio Settings",
or a part of it, such as video, fps or audio; CHOICE is an index, a title, or a part of one that
fits no other, as "brvhost show" tells them. The format is set first: frame rates are those of the
format.

--json writes JSON, and nothing else, to standard output; "brvhost COMMAND --help" names the keys.

Exit codes: 0 done, 1 failed, 2 wrong use (an unknown source included). Errors go to standard error.)";

constexpr const char* ListHelp =
    R"(Shows each source with its position, its name, its kind (video, audio, video+audio), "HDV" where it
is such a device, and the unique IDs of its camera and microphone; the frame rate where it is known;
and the module's error where something is wrong with it, such as a camera that another program
holds. Then the devices that are not offered as sources, each with the reason. An empty list is no
failure.

JSON: {"group", "provider", "sources": [...], "unoffered": [{"name", "reason"}]}. A source has "id",
"video", "audio" and "hdv" (true or false); "video_device_id" and "audio_device_id" where it has a
camera or a microphone; where they are known "width", "height", "frame_rate", "frame_duration" (in
ticks) and "ticks_per_second"; with --formats "formats": [{"index", "title", "rates": [title,
...]}]; and "error".)";

constexpr const char* ShowHelp =
    R"(Shows the source as list does, and the choices of "Video Settings", "Video FPS" and "Audio Settings"
with their indexes, "*" in front of the selected ones (none where nothing has been chosen yet). The
frame rates are those of the selected format. The source is started until its first samples have
come, for 2 seconds at most, to find out the size, rate and duration of its frames and the ticks of
its time stamps.

JSON: the keys of a source, see "brvhost list --help", and "settings": [{"name", "selected" (an
index, or null where it is not known), "choices": [{"index", "title"}]}].)";

constexpr const char* SetHelp =
    R"(Starts the source, applies the settings (the format first, then the frame rate, then the sound), and
shows the module's answer, its message where it refuses, and what is selected then. See "brvhost
--help" for NAME and CHOICE.

The settings last until brvhost ends: this command tries them out. To record with settings, give
them to record.

Exits with 1 when a setting is refused, with 2 for an unknown NAME or CHOICE.

JSON: {"id", "tried": [{"name", "index"}], "done" (true or false), "code", "message", "settings": as
show has them}.)";

constexpr const char* RecordHelp =
    R"(Records the picture to BASE.y4m (uncompressed 4:2:2) and the sound to BASE.wav (44,100 Hz, 16 bits,
stereo), whichever the source has. Existing files are replaced, but not when one of the two would
stay from an earlier take, which would pass for a part of this one. Ctrl-C ends the recording, and
the files are complete then too; a second Ctrl-C ends it at once, without the report. SIGUSR1 shows
the report as it stands, on standard error. Without settings the module chooses the format.

When no picture or sound comes for 2 seconds, record says so, and when it is back. It exits with 1
when one of them is still missing at Ctrl-C, falls short of --seconds, or never came.

The report counts frames: "captured" is the sum of "delivered", which reached this program, and
"dropped", read from the gaps between time stamps. "Not written" were delivered but are not in the
file, because the disk did not keep up. "Missing" sound is read from the time stamps likewise. Gaps
are not filled; the first few are listed. A picture whose size changes ends BASE.y4m there.
"Callbacks" are the module's calls.)";

constexpr const char* SnapshotHelp =
    R"(Starts the source, lets a few frames pass, and saves one as RGB with square pixels: as PNG or JPEG
by the ending of FILE (.png, .jpg, .jpeg), or as PNG to standard output when FILE is "-". Fails when
no frame comes within 5 seconds.)";

constexpr const char* WatchHelp =
    R"(Shows the sources and the devices that are not offered (!), then each source that appears (+) or
disappears (-), what the module says when something goes wrong with one (!), and its log, until
Ctrl-C or for N seconds. A source of two devices, such as a camera with its microphone, stays until
both are removed.

JSON, one object a line: "time" (local, with its offset from UTC) and "event": "present", "added" or
"removed" with "source", the keys of which "brvhost list --help" names; "unoffered" with "device":
{"name", "reason"}; "error" with "source" and "error"; "attached" or "detached", a device that was
plugged in or removed, with "sources_changed" (true or false).)";

/// "de_AT.UTF-8" -> "de"; "en" where there is no language in it.
std::string languageOfLocale(const char* localeName) {
  const std::string_view name = localeName == nullptr ? std::string_view() : localeName;
  const std::string_view language = name.substr(0, name.find_first_of("_.@"));
  return language.empty() || language == "C" || language == "POSIX" ? "en" : std::string(language);
}

/// An option of one value that is not empty.
template <typename Value>
CLI::Option* addValue(CLI::App& app, const char* name, Value& value, const char* text, const char* description) {
  CLI::Option* const added = app.add_option(name, value, description)->option_text(text);
  return added->check([](const std::string& given) { return std::string(given.empty() ? "a value is needed" : ""); });
}

class CommandLine {
 public:
  explicit CommandLine(Options& options) : _options(options) {
    _app.get_formatter()->column_width(HelpColumn);
    _app.get_formatter()->label("OPTIONS", "options");
    _app.get_formatter()->label("SUBCOMMAND", "COMMAND ...");
    _app.get_formatter()->label("Positionals", "Arguments");
    _app.set_version_flag("--version", "brvhost " BRVHOST_VERSION, "the version");
    _app.require_subcommand(1)->fallthrough()->footer(ProgramHelp);
    _app.set_help_flag("-h,--help", "this, or with a command the command's own");
    addValue(_app, "--module", options.module, "PATH",
             "the module; otherwise what BRV_MODULE names, otherwise the one that\nis installed with this program");
    addValue(_app, "--rig", options.rig, "FILE",
             "simulated devices instead of this machine's own: those that FILE describes,\n"
             "or with demo those of a demonstration; CAPTURE_RIG=FILE does the same")
        ->envname("CAPTURE_RIG");
    addValue(_app, "--language", options.language, "CODE",
             "language of the module's texts, \"en\" for example; otherwise as LANG says");
    _app.add_flag("--quiet", options.quiet, "do not show the module's log (on standard error)");
    addCommands();
  }

  void parse(std::vector<std::string> arguments) {
    std::reverse(arguments.begin(), arguments.end());
    try {
      _app.parse(arguments);
    } catch (const CLI::CallForHelp&) {
      _options.answer = _app.help();
    } catch (const CLI::CallForVersion&) {
      _options.answer = _app.version() + "\n";
    } catch (const CLI::Error& error) {
      if (_app.get_subcommands().empty()) {
        throw UsageError("a command is needed: list, show, set, record, snapshot or watch; try --help");
      }
      throw UsageError(std::string(error.what()) + "; try --help");
    }
    if (_options.command == Command::set && _options.settings.empty())
      throw UsageError("set needs a setting; try set --help");
    if (_options.command == Command::snapshot) imageFormatOf(_options.output);  // which refuses other endings
    _options.settings = inOrder(std::move(_options.settings));
  }

 private:
  void addCommands() {
    CLI::App& list = addCommand(Command::list, "list", "show the sources", ListHelp);
    list.add_flag("--probe", _options.probe, "start each camera for a moment, for the size and rate of its picture");
    list.add_flag("--formats", _options.formats,
                  "show each camera's formats with their frame rates; selects them in turn");
    addJSON(list);

    CLI::App& show = addCommand(Command::show, "show", "show what can be set on a source, and its frames", ShowHelp);
    addSource(show);
    addJSON(show);

    CLI::App& set = addCommand(Command::set, "set", "try settings out", SetHelp);
    addSource(set);
    addSettings(set);
    set.add_option_function("NAME=CHOICE", _addNamed, "a setting, like --set")->option_text(" ");
    addJSON(set);

    CLI::App& record = addCommand(Command::record, "record", "record to BASE.y4m and BASE.wav", RecordHelp);
    addSource(record);
    addValue(record, "--output", _options.output, "BASE", "the files, without their endings")->required();
    addSettings(record);
    addSeconds(record, "stop after N seconds of picture and of sound, by their time stamps");
    record.add_flag("--until-idle", _options.untilIdle,
                    "stop when nothing has come for 2 seconds after the last sample: the end of a clip");

    CLI::App& snapshot = addCommand(Command::snapshot, "snapshot", "save one picture", SnapshotHelp);
    addSource(snapshot);
    addValue(snapshot, "FILE", _options.output, " ", "the picture")->required();
    addSettings(snapshot);

    CLI::App& watch = addCommand(Command::watch, "watch", "follow devices being plugged in and removed", WatchHelp);
    addSeconds(watch, "stop after N seconds");
    addJSON(watch);
  }

  CLI::App& addCommand(Command command, const char* name, const char* description, const char* help) {
    CLI::App* const added = _app.add_subcommand(name, description)->footer(help);
    added->final_callback([this, command] { _options.command = command; });
    return *added;
  }

  void addSource(CLI::App& command) {
    addValue(command, "SOURCE", _options.source, " ", "position, name or device ID of the source")->required();
  }

  void addJSON(CLI::App& command) { command.add_flag("--json", _options.json, "write JSON instead, for programs"); }

  void addSeconds(CLI::App& command, const char* description) {
    const auto apply = [this](double seconds) {
      constexpr double Longest = 366.0 * 24 * 3600;
      if (!(seconds > 0 && seconds <= Longest)) throw UsageError("--seconds takes a number above 0, up to 366 days");
      _options.seconds = seconds;
    };
    command.add_option_function<double>("--seconds", apply, description)->option_text("N");
  }

  void addSettings(CLI::App& command) {
    command.add_option_function("--set", _addNamed, "a setting; may be repeated")
        ->option_text("NAME=CHOICE")
        ->allow_extra_args(false);
    const auto addSize = [this](const std::string& size) { _options.settings.push_back(settingOfSize(size)); };
    command.add_option_function<std::string>("--size", addSize, "the first format of that size")->option_text("WxH");
    const auto addRate = [this](double rate) {
      if (!(rate > 0)) throw UsageError("--rate takes a number above 0");
      _options.settings.push_back(settingOfRate(rate));
    };
    command.add_option_function<double>("--rate", addRate, "the frame rate nearest to R, within 0.5 %")
        ->option_text("R");
  }

  Options& _options;
  const std::function<void(const std::vector<std::string>&)> _addNamed = [this](const auto& given) {
    for (const std::string& each : given) _options.settings.push_back(settingNamed(each));
  };
  CLI::App _app{"brvhost: a command-line host for the capture-source module.", "brvhost"};
};

}  // namespace

Options parseOptions(const std::vector<std::string>& arguments, const char* localeName) {
  Options options;
  options.language = languageOfLocale(localeName);
  CommandLine(options).parse(arguments);
  return options;
}

}  // namespace brvhost
