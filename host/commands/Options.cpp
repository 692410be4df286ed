#include "commands/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
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
    R"(Records picture and sound to one file, with the source's own time stamps. The ending of FILE says
how: .mkv (lossless), .mov, .mp4, .webm, .ts; .y4m or .wav for one of the two. % in it stands for
the time, as strftime has it: "%F-%T.mkv"; a name that is the same again gets -002, -003. FILE may
be - for Matroska on standard output, or a URL: srt://, udp://, tcp://, rtmp://, which is connected
to before the source starts. An existing file is replaced once there is something to write.

The recording begins when picture and sound have both begun, and ends with Ctrl-C, a second one at
once; what is written plays. SIGUSR1 shows the account as it stands. Missing sound is silence, and
a microphone whose clock is off is stretched. A picture of another size begins another file.

Says when picture or sound stops, is silent, black or frozen, and when that is over. Exits with 1
when more is missing than --max-missing, or than asked for, and when the source is unplugged.

JSON: {"files", "bytes", "drift" (seconds), "pictures" and "sound": {"delivered", "missing",
"not_written", "outside", "seconds", "gaps" (how many), "first_gaps": [{"at", "seconds"}], "dropped":
{reason: number}, "peak" (of sound, dB)}, "shortfall" (why it is not whole, or null)}.)";

constexpr const char* SnapshotHelp =
    R"(Starts the source, lets a few frames pass, and saves one as RGB with square pixels: as PNG or JPEG
by the ending of FILE (.png, .jpg, .jpeg), or as PNG to standard output when FILE is "-". Fails when
no frame comes within 5 seconds.)";

constexpr const char* DoctorHelp =
    R"(Finds out what a colleague would ask about: which media server runs, with its session manager; the
kernel's video devices, whether this user may open them and who has them open; the devices that are
not offered, with the reasons; the formats that the server tells of each device, who captures from
it, and where its sizes are not those that the source offers. Then looks at each source, or the one
that is named, for two seconds: when the first picture and sound come, the frame rate that is there
and the one that was promised, uneven times, losses, a black or frozen picture, levels, silence, a
clock that is off. Ends with advice. Exits with 1 where there is any.

JSON: {"group", "provider", "server": {"name", "session_manager", "problem", "devices": [{"name",
"description", "formats", "users"}]}, "video_devices": [{"path", "name", "permitted", "permissions",
"holders"}], "unoffered", "sources": [...], "good" (true or false)}. A source has the keys of
"brvhost list --help", and "picture": {"first_seconds", "width", "height", "nominal_rate", "rate",
"jitter_seconds", "age_seconds", "count", "missing", "black", "frozen"}, "sound": {"first_seconds",
"rate", "peak", "rms" (dB), "silent"}, "dropped": {"video", "audio": {reason: number}}, "advice":
[text, ...].)";

constexpr const char* WatchHelp =
    R"(Shows the sources and the devices that are not offered (!), then each source that appears (+) or
disappears (-), what the module says when something goes wrong with one (!), and its log, until
Ctrl-C or for --seconds. A source of two devices, such as a camera with its microphone, stays until
both are removed. What repeats is counted, and told each minute.

JSON, one object a line, all of them: "time" (local, with its offset from UTC) and "event": "present", "added" or
"removed" with "source", the keys of which "brvhost list --help" names; "unoffered" with "device":
{"name", "reason"}; "error" with "source" and "error"; "signal" and "summary" with "source" and
"text"; "attached" or "detached", a device that was plugged in or removed, with "sources_changed"
(true or false).)";

constexpr const char* MonitorHelp =
    R"(Serves a web page that shows all sources at once: their pictures, how loud they are, at which rate
pictures come and what is dropped. One that is enlarged can be set, recorded to the folder, and saved
as a picture. The sources run while the page is open somewhere. Goes on until Ctrl-C.

Shows the address of the page, one for each way to this machine. Whoever has it can watch, set and
record: the token in it is another one each time. Only this machine can reach the page, unless
--listen says otherwise; what goes over a network then can be read on its way.)";

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
        throw UsageError(
            "a command is needed: list, show, set, record, snapshot, watch, doctor or monitor; try --help");
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

    CLI::App& record = addCommand(Command::record, "record", "record to a file, or to the network", RecordHelp);
    addSource(record);
    addValue(record, "FILE", _options.output, " ", "file, URL, or - for standard output")->required();
    addSettings(record);
    addSpan(record, "--seconds", _options.seconds, "stop after so long, by the time stamps");
    addSpan(record, "--segment", _options.segmentSeconds,
            "begin another file each 10m, say: FILE-001, FILE-002 and so on");
    addSpan(record, "--wait", _options.waitSeconds, "wait so long for a source that is unplugged, and go on");
    record.add_flag("--until-idle", _options.untilIdle, "stop when nothing has come for 2 s: the end of a clip");
    addValue(record, "--video-codec", _options.videoCodec, "NAME", "one of FFmpeg's, such as ffv1, libx264, prores");
    addValue(record, "--audio-codec", _options.audioCodec, "NAME", "such as flac, aac, libopus");
    const auto limit = [this](const std::string& text) { _options.limit.set(text); };
    record
        .add_option_function<std::string>("--max-missing", limit,
                                          "what may be missing: one hole of 0.5s, say, or 0.1% of the frames")
        ->option_text("N");
    addValue(record, "--report", _options.report, "FILE.html", "write a page about it as well, with pictures");
    addJSON(record);

    CLI::App& snapshot = addCommand(Command::snapshot, "snapshot", "save one picture", SnapshotHelp);
    addSource(snapshot);
    addValue(snapshot, "FILE", _options.output, " ", "the picture")->required();
    addSettings(snapshot);

    CLI::App& doctor =
        addCommand(Command::doctor, "doctor", "say what is wrong with the sources, and what may help", DoctorHelp);
    addValue(doctor, "SOURCE", _options.source, " ", "position, name or device ID of one source");
    addValue(doctor, "--report", _options.output, "FILE.html",
             "write a page as well, with pictures, to send to somebody");
    addJSON(doctor);

    CLI::App& watch = addCommand(Command::watch, "watch", "follow devices being plugged in and removed", WatchHelp);
    watch.add_flag("--sources", _options.capture,
                   "capture from all sources, and say when one stops, falls silent, turns\nblack, freezes or loses "
                   "samples: a line a minute at most, and a summary");
    addSpan(watch, "--seconds", _options.seconds, "stop after so long");
    addJSON(watch);

    CLI::App& monitor = addCommand(Command::monitor, "monitor", "show all sources on a web page", MonitorHelp);
    addValue(monitor, "--listen", _options.address, "ADDRESS",
             "where to listen; 127.0.0.1, which is this machine alone");
    monitor.add_option("--port", _options.port, "at which port; 8730, or 0 for any")
        ->option_text("N")
        ->check(CLI::Range(0, 65'535));
    monitor.add_option("--fps", _options.framesPerSecond, "pictures a second on the page; 10")
        ->option_text("N")
        ->check(CLI::Range(0.1, 60.0));
    addValue(monitor, "--folder", _options.folder, "DIR", "where recordings go; the current folder");
    addSpan(monitor, "--seconds", _options.seconds, "stop after so long");
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

  /// A time: a number, with s, m or h after it or in seconds.
  void addSpan(CLI::App& command, const char* name, std::optional<double>& span, const char* description) {
    const auto apply = [name, &span](const std::string& text) {
      constexpr double Longest = 366.0 * 24 * 3600;
      double number = 0;
      const char* const end = text.data() + text.size();
      const auto [rest, error] = std::from_chars(text.data(), end, number);
      const std::string_view unit(rest, static_cast<std::size_t>(end - rest));
      const double seconds = unit == "h" ? 3'600 : unit == "m" ? 60 : unit.empty() || unit == "s" ? 1 : 0;
      if (error != std::errc() || !(number * seconds > 0 && number * seconds <= Longest)) {
        throw UsageError(std::string(name) + " takes a time such as 90, 90s, 10m or 2h, up to 366 days");
      }
      span = number * seconds;
    };
    command.add_option_function<std::string>(name, apply, description)->option_text("TIME");
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
