#!/usr/bin/env python3
"""Prints the table of one run of the benchmarks, in Markdown.

usage: table.py FOLDER [README]

FOLDER holds what tools/bench left: *.json from Google Benchmark, allocations.txt, and the callgrind dumps counts.* and
portable.* with the numbers of items in counts.txt and portable.txt. With README, the table also replaces the one
between that file's marks.
"""

import datetime
import glob
import json
import os
import re
import sys


def load_times(folder, results):
    """Medians: nanoseconds an item, and whatever else a benchmark counted."""
    for path in glob.glob(os.path.join(folder, "*.json")):
        with open(path) as file:
            benchmarks = json.load(file)["benchmarks"]
        for entry in benchmarks:
            is_manual = entry["run_name"].endswith("/manual_time")
            name = re.sub(r"/iterations:1|/manual_time", "", entry["run_name"])
            if "allocations" in entry and entry["run_type"] == "iteration":  # the most of all repetitions
                known = results.setdefault(name, {})
                known["allocations"] = max(known.get("allocations", 0), entry["allocations"])
            if entry.get("aggregate_name") != "median" or entry.get("error_occurred"):
                continue
            scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[entry["time_unit"]]
            time = entry["real_time" if is_manual else "cpu_time"] * scale
            known = results.setdefault(name, {})
            known["time"] = time / entry.get("items", 1)
            known.update({key: entry[key] for key in ("cpu_ns", "p99", "share", "lane_share", "unreported") if key in entry})


def load_counts(folder, prefix, figure, results):
    """Instructions an item, from callgrind's dumps."""
    items = {}
    path = os.path.join(folder, prefix + ".txt")
    if os.path.exists(path):
        with open(path) as file:
            items = dict(line.rsplit(" ", 1) for line in file if " " in line)
    for dump in glob.glob(os.path.join(folder, prefix + ".[0-9]*")):
        with open(dump) as file:
            head = file.read(4096)
        name = re.search(r"^desc: Trigger: Client Request: (.*)$", head, re.M)
        total = re.search(r"^summary: (\d+)", head, re.M)
        if name and total and name[1] in items:
            results.setdefault(name[1], {})[figure] = int(total[1]) / float(items[name[1]])


def load_allocations(folder, results):
    with open(os.path.join(folder, "allocations.txt")) as file:
        for line in file:
            name, _, count = line.strip().split(";")
            results[name + "/ours"] = {"count": int(count)}


def load(folder):
    results = {}
    load_times(folder, results)
    load_counts(folder, "counts", "instructions", results)
    load_counts(folder, "portable", "portable", results)
    load_allocations(folder, results)
    return results


def show(figure, value):
    if value is None:
        return ""
    if figure in ("time", "p99", "cpu_ns"):
        for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
            if value >= size:
                return f"{value / size:.3g} {unit}"
        return f"{value:.3g} ns"
    if figure in ("share", "lane_share"):
        return f"{value * 100:.2f} %" if value < 0.1 else f"{value * 100:.1f} %"
    if value >= 1e6:
        return f"{value / 1e6:.4g} M"
    return f"{value:,.1f}".removesuffix(".0")


class Table:
    def __init__(self, results):
        self.results = results
        self.lines = []
        self.missed = 0

    def figure(self, row, who, figure):
        return self.results.get(f"{row}/{who}", {}).get(figure)

    def add(self, work, row, figure, peers=(), target="", is_met=None, peer_figure=None):
        """A line for the first peer that is there, with the target's verdict; a line for each of the others.

        `is_met` gets our figure and the first named peer's, which is None when that is absent.
        """
        ours = self.figure(row, "ours", figure)
        if ours is None:
            return
        values = [(who, self.figure(row, who, peer_figure or figure)) for who in peers]
        verdict = ""
        if is_met:
            met = is_met(ours, values[0][1] if values else None)
            verdict = {True: "met", False: "**MISSED**", None: "no peer"}[met]
            self.missed += met is False
        present = [(who, value) for who, value in values if value is not None] or [("", None)]
        for who, value in present:
            peer = f"{show(figure, value)} ({who})" if who else ""
            ratio = f"{ours / value:.2f}" if value else ""
            self.lines.append((work, show(figure, ours), peer, ratio, target, verdict))
            work = target = verdict = ""

    def text(self):
        heads = ("Work", "Ours", "Peer", "Ours / peer", "Target", "")
        widths = [max(len(line[i]) for line in [heads, *self.lines]) for i in range(len(heads))]
        rows = [heads, tuple("-" * width for width in widths), *self.lines]
        return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in rows)


def at_most(limit):
    return lambda ours, peer: ours <= limit


def within(factor):
    return lambda ours, peer: None if peer is None else ours <= factor * peer


def below_peer(ours, peer):
    return None if peer is None else ours < peer


def add_sound(table):
    resamplers = ("soxr HQ", "swresample", "samplerate medium")
    first = "stream 48 kHz float stereo"
    work = "48 kHz float stereo to 44.1 kHz 16-bit, continuous, an output frame"
    table.add(work + ": time", first, "time", resamplers, "less than soxr HQ", below_peer)
    table.add(work + ": instructions with AVX2", first, "instructions", resamplers, "150", at_most(150))
    table.add(work + ": instructions without", first, "portable", resamplers[:1], "fewer than soxr HQ", below_peer,
              "instructions")
    for name in ("96 kHz 32-bit stereo", "16 kHz 16-bit mono", "32 kHz float stereo", "22.05 kHz float stereo",
                 "8 kHz float stereo", "192 kHz float stereo"):
        row = "stream " + name
        table.add(f"{name}, the same: time", row, "time", resamplers, "less than soxr HQ", below_peer)
        table.add(f"{name}, the same: instructions", row, "instructions", resamplers[:2])
    single = ("swresample", "soxr HQ", "samplerate medium")
    table.add("1,024 frames at 48 kHz on their own, with reset: time", "single buffer", "time", single, "26 µs",
              at_most(26e3))
    table.add("the same: instructions", "single buffer", "instructions", single)
    planar = "planar float to 16-bit"
    table.add("44.1 kHz float planar to 16-bit interleaved, a frame: time", planar, "time", single[:1],
              "1.2 of swresample", within(1.2))
    table.add("the same: instructions", planar, "instructions", single[:1])
    table.add("sound in the host's format, 10,000 buffers: copies", "copies in pass-through", "count", (), "0", at_most(0))


def add_delivery(table):
    peers = ("shared_ptr record", "GStreamer", "bare call")
    table.add("video frame, sample buffer to host callback: time", "video frame", "time", peers, "20 ns", at_most(20))
    table.add("the same: instructions", "video frame", "instructions", peers, "150", at_most(150))
    table.add("audio buffer in pass-through, likewise: time", "audio buffer", "time")
    table.add("the same: instructions", "audio buffer", "instructions", (), "300", at_most(300))
    lines = ("bare queue", "GStreamer queue")
    row = "camera thread to host"
    table.add("camera thread to host callback, a frame every 2 ms: latency", row, "time", lines, "1.2 of the bare queue",
              within(1.2))
    table.add("the same: CPU a frame", row, "cpu_ns", lines, "1.2 of the bare queue", within(1.2))
    for source in ("video", "video in real time", "sound without conversion", "sound with conversion"):
        table.add(f"allocations of 10,000 deliveries: {source}", source, "count", (), "0", at_most(0))
    table.add("8 cameras of 1920 x 1080 at 60: share of a core", "eight cameras", "share", (), "50 %", at_most(0.5))
    table.add("the same: frames lost unreported", "eight cameras", "unreported", (), "0", at_most(0))


def add_pictures(table):
    peers = ("GStreamer",)
    for packing, target, is_met in (("YUYV", "", None), ("NV12", "less than GStreamer", below_peer),
                                    ("RGBx", "less than GStreamer", below_peer),
                                    ("Motion JPEG", "1.05 of GStreamer", within(1.05))):
        row = "picture " + packing
        table.add(f"camera picture of 1920 x 1080, {packing}: time", row, "time", peers, target, is_met)
        table.add("the same: instructions", row, "instructions", peers)


def add_live(table):
    for camera, peers in (("YUYV", ("GStreamer, copied", "GStreamer")), ("Motion JPEG", ("GStreamer",))):
        row = "live " + camera
        for name, figure in ((f"live capture of 1920 x 1080 at 30, {camera}: age at the callback, median", "time"),
                             ("the same: 99th percentile", "p99"), ("the same: CPU a frame", "cpu_ns"),
                             ("the same: share of a core", "share")):
            table.add(name, row, figure, peers, f"less than {peers[0]}", below_peer)
        table.add("the same: allocations", row, "allocations", (), "0", at_most(0))
    table.add("the same with YUYV: the device lane's share of a core", "live YUYV", "lane_share", (), "1.5 %",
              at_most(0.015))


def add_log(table):
    filtered = ("spdlog dup_filter",)
    table.add("log call, suppressed: time", "log suppressed", "time", filtered, "40 ns", at_most(40))
    table.add("the same: instructions", "log suppressed", "instructions", filtered, "350", at_most(350))
    sink = ("spdlog null sink",)
    table.add("log call, emitted to a host that does nothing: time", "log emitted", "time", sink, "200 ns", at_most(200))
    table.add("the same: instructions", "log emitted", "instructions", sink)


def add_detection(table):
    for name, row in (("detection", "detection pass"), ("removal of half", "removal pass"),
                      ("devices listed before", "devices listed")):
        for count in (10, 100, 1000):
            has_target = row != "devices listed" and count == 1000
            table.add(f"{name}, {count:,} devices: time", f"{row}/{count}", "time", (), "50 ms" if has_target else "",
                      at_most(50e6) if has_target else None)
            table.add("the same: instructions", f"{row}/{count}", "instructions")


def add_rest(table):
    for verb, peers in (("written", ("own tree", "pugixml")), ("read", ("expat", "pugixml"))):
        row = "options " + verb
        table.add(f"options record of 65,536 formats {verb}: time", row, "time", peers, "1.5 of expat with a plain tree",
                  within(1.5))
        table.add("the same: instructions", row, "instructions", peers)
    table.add("module loaded, initialised, demo rig enumerated: CPU", "module loaded", "time", (), "10 ms", at_most(10e6))


def machine():
    model = "unknown processor"
    with open("/proc/cpuinfo") as file:
        match = re.search(r"^model name\s*: (.*)$", file.read(), re.M)
        if match:
            model = match[1]
    load = os.getloadavg()[0]
    today = datetime.date.today().isoformat()
    return f"{model}, {os.cpu_count()} cores, load {load:.1f} at the end of the run, {today}"


def main():
    table = Table(load(sys.argv[1]))
    for add in (add_sound, add_delivery, add_pictures, add_live, add_log, add_detection, add_rest):
        add(table)
    missed = "Every target met." if table.missed == 0 else f"{table.missed} targets missed."
    text = f"{machine()}. {missed}\n\n{table.text()}\n"
    print(text)
    if len(sys.argv) > 2:
        with open(sys.argv[2]) as file:
            readme = file.read()
        marks = r"(<!-- table -->\n).*(<!-- end of table -->)"
        with open(sys.argv[2], "w") as file:
            file.write(re.sub(marks, lambda match: match[1] + text + match[2], readme, flags=re.S))


main()
