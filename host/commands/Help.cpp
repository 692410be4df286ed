#include "commands/Options.h"

namespace brvhost {

namespace {

constexpr const char* ProgramHelp =
    R"(brvhost: a command-line host for the capture-source module.

usage: brvhost [options] COMMAND ...

  list                         show the sources
  show SOURCE                  show what can be set on a source, and its frames
  set SOURCE NAME=INDEX...     try settings out
  record SOURCE --output BASE  record to BASE.y4m and BASE.wav
  snapshot SOURCE FILE.png     save one picture
  watch                        follow devices being plugged in and removed

  --module PATH    the module; otherwise what BRV_MODULE names, otherwise the one installed with this program
  --rig FILE       simulated devices instead of this machine's own: those that FILE describes, or with demo
                   those of a demonstration; CAPTURE_RIG=FILE does the same
  --language CODE  language of the module's texts, "en" for example; otherwise as LANG says
  --quiet          do not show the module's log (on standard error)
  --help           this, or with a command the command's own
  --version        the version

SOURCE is a source's identifier, a beginning of it that fits no other (case does not matter), or its index
as list shows it.

exit codes: 0 done, 1 failed, 2 wrong use (an unknown source included)
)";

constexpr const char* ListHelp =
    R"(usage: brvhost [options] list [--probe]

Shows each source with its index, its identifier, its kind (video, audio, video+audio), "HDV" where it is
such a device, and the identifier of its capture device; the frame rate where it is known; and the module's
error where something is wrong with it, such as a linked microphone that cannot be opened.

  --probe  start each source that has a picture for a moment, and show the picture's size and frame rate
)";

constexpr const char* ShowHelp =
    R"(usage: brvhost [options] show SOURCE

Shows the choices of "Video Settings", "Video FPS" and "Audio Settings" with their indexes, "*" in front of
the selected ones (none where nothing has been chosen yet). The frame rates are those of the selected
format. Then the size, the rate and the duration of frames and the ticks of time stamps, for which the
source is started until its first samples have come, for 2 seconds at most; what is not known then is left
out.
)";

constexpr const char* SetHelp =
    R"(usage: brvhost [options] set SOURCE NAME=INDEX...

Starts the source, applies the settings in the order given, and shows the module's answer, its message where
it refuses, and what is selected then. NAME is "Video Settings", "Video FPS" or "Audio Settings", or for
short video, fps or audio; case does not matter. INDEX is as show tells it; the frame rates are those of the
format, so set that first.

The simulated hardware is part of the process: settings last until brvhost ends. To record with them, give
them to record with --set.

Exits with 1 when a setting does not hold in the end, with 2 for an unknown NAME or an INDEX that is none.
)";

constexpr const char* RecordHelp =
    R"(usage: brvhost [options] record SOURCE --output BASE [--set NAME=INDEX]... [--seconds N] [--until-idle]

Records the picture to BASE.y4m (uncompressed 4:2:2) and the sound to BASE.wav (44,100 Hz, 16 bits,
stereo), whichever the source has. Existing files are replaced; but where the source has no sound and
BASE.wav exists, or no picture and BASE.y4m does, nothing is recorded: that file would pass for a part of the
take. The recording begins with the first frame after the source was started in its final format. Ctrl-C ends
it, and the files are complete then too; a second Ctrl-C ends it at once, without the report. SIGUSR1 shows the
report as it stands, on standard error, while the recording goes on.

  --set NAME=INDEX  apply a setting before (see set); may be repeated, and is done in the order given. When one
                    does not hold nothing is recorded. Without it the module chooses the format
  --seconds N       stop after N seconds of picture and of sound, by their time stamps; one frame at least
  --until-idle      stop when nothing has come for 2 seconds after the last sample: the end of a clip. Where picture
                    and sound end apart, when both have

When nothing comes of the picture or of the sound for 2 seconds, or for as long as two frames last, record says so,
and when it is back. It exits with 1 when one of them is still missing at Ctrl-C, falls short of --seconds, or never
came; BASE.y4m or BASE.wav may then still be that of an earlier take, which record says.

The report counts frames like this. Delivered ones reached this program. Dropped ones did not; they are
read from the gaps between time stamps, a gap being worth its length in frame durations, rounded, less one
(what is lost before the first frame or after the last leaves no gap, except before the end that --seconds
sets where a later one still came). Captured is the sum of the two. "Not
written" are frames that were delivered but are not in the file, because the disk did not keep up. "Missing"
sound is read from the time stamps likewise. Gaps are not filled in the files; the first few are listed, each at
its time in the recording, where it also lies in a file in which those before it have been filled. A line
tells when the picture or the sound is the shorter of the two, and the last ones why the module dropped what it
dropped from the beginning to the end. A picture whose size changes ends BASE.y4m there,
while the sound goes on. "Waiting" ones, while it runs, are on their way to the file. Callbacks are the module's
calls, each of which brings one frame of picture or a run of sound: recorded, or after the recording's end.
)";

constexpr const char* SnapshotHelp =
    R"(usage: brvhost [options] snapshot SOURCE FILE.png [--set NAME=INDEX]...

Starts the source, lets a few frames pass, and saves one as RGB with square pixels. Fails when no frame
comes within 5 seconds.

  --set NAME=INDEX  apply a setting before (see set); may be repeated, and is done in the order given
)";

constexpr const char* WatchHelp =
    R"(usage: brvhost [options] watch [--seconds N]

Shows the sources, then each one that appears (+) or disappears (-), and the module's log, until Ctrl-C or
for N seconds. A source of two devices, such as a camera with its microphone, stays until both are removed.
)";

}  // namespace

const char* helpText(Command command) {
  switch (command) {
    case Command::list:
      return ListHelp;
    case Command::show:
      return ShowHelp;
    case Command::set:
      return SetHelp;
    case Command::record:
      return RecordHelp;
    case Command::snapshot:
      return SnapshotHelp;
    case Command::watch:
      return WatchHelp;
    case Command::none:
      break;
  }
  return ProgramHelp;
}

}  // namespace brvhost
