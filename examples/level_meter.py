#!/usr/bin/env python3
"""A level meter of a microphone, in the terminal: left and right, with what was loudest for a moment.

    CAPTURE_RIG=demo examples/level_meter.py "Studio Microphone" --seconds 5
"""

from __future__ import annotations

import argparse
import math
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "python"))  # where the package is not installed
import brv

QUIETEST = -60.0  # decibels below full scale, at the left end of a bar
WIDTH = 30
REFRESH = 0.05  # seconds from one line to the next
FALL = 0.6  # decibels that the mark of the loudest falls with each line


def bar(rms: float, held: float) -> str:
    def place(decibels: float) -> int:
        return round(WIDTH * min(1.0, max(0.0, 1 - decibels / QUIETEST)))

    cells = ["#"] * place(rms) + ["."] * (WIDTH - place(rms))
    if place(held) > 0:
        cells[place(held) - 1] = "|"
    return f"[{''.join(cells)}] {max(rms, QUIETEST):6.1f} dB"


def meter(source: brv.Source, seconds: float) -> bool:
    """Shows the levels for that long; False when the microphone was lost, or nothing came."""
    end, due, runs = time.monotonic() + seconds, 0.0, 0
    held = [-math.inf, -math.inf]
    with source.sound() as sounds:
        while (left := end - time.monotonic()) > 0 and not sounds.is_lost:
            sound = sounds.get(timeout=min(left, 0.5))
            if sound is None:
                continue
            runs += 1
            levels = sound.levels()
            held = [max(level.peak, mark) for level, mark in zip(levels, held)]
            if time.monotonic() >= due:
                print("\r" + "  ".join(map(bar, (level.rms for level in levels), held)), end="", flush=True)
                held = [mark - FALL for mark in held]
                due = time.monotonic() + REFRESH
        print()
        if sounds.is_lost:
            print(f"{source.name} was pulled", file=sys.stderr)
        return runs > 0 and not sounds.is_lost


def main() -> int:
    parser = argparse.ArgumentParser(description="A level meter of a microphone.")
    parser.add_argument("source", nargs="?", help="how its name begins; otherwise the first source with sound")
    parser.add_argument("--seconds", type=float, default=math.inf, help="otherwise until Ctrl-C")
    arguments = parser.parse_args()
    try:
        with brv.Library() as library:
            heard = [source for source in library.sources if source.has_audio]
            if not (arguments.source or heard):
                raise brv.CaptureError("no source has sound")
            source = library[arguments.source] if arguments.source else heard[0]
            print(source.name)
            return 0 if meter(source, arguments.seconds) else 1
    except (brv.CaptureError, KeyError) as error:
        print(f"level_meter: {error.args[0]}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 0


if __name__ == "__main__":
    sys.exit(main())
