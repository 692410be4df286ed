"""The page of `brvhost monitor` in a browser, with simulated devices: monitor_page.py BUILD_FOLDER.

Waits for what is to be seen, and fails when it does not come for a while. Leaves screenshots in the build folder.
"""

from __future__ import annotations

import math
import re
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import wave
from collections.abc import Callable
from pathlib import Path
from typing import TypeVar

from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.remote.webelement import WebElement
from selenium.webdriver.support.ui import Select

BUILD = Path(sys.argv[1] if len(sys.argv) > 1 else "build/dev").resolve()
PATIENCE = 30  # seconds
Result = TypeVar("Result")
DEVICES = {
    "Studio Camera": """media = video
        links = Microphone
        video format = 1280x720 yuvs, rates 30, active
        video format = 640x480 yuvs, rates 30""",
    "Microphone": "media = audio\naudio format = 48000 Hz\nsound = media tone.wav",
    "Balcony": "media = video\nvideo format = 1920x1080 yuvs, rates 25",
    "Stage Left": "media = video\npicture = media black.y4m",
    "Stage Right": "media = video\npicture = media still.y4m",
    "Tripod": """media = video
        video format = 640x480 yuvs, rates 25
        running failure = The camera is too hot., at 1 s, for 600 s""",
    "Guest": "media = video\nvideo format = 640x480 yuvs, rates 25",
}
RIG = "".join(f"[device]\nid = {name}\nname = {name}\n{lines}\n" for name, lines in DEVICES.items())
SCRIPT = "".join(f"at {at} s = unplug Guest\nat {at + 4} s = plug Guest\n" for at in range(4, 200, 8))

# Whether each of the 40 blocks at the bottom of a simulated picture, drawn at any size, is white.
READ_BLOCKS = """
const canvas = arguments[0], width = arguments[1], even = number => number - number % 2;
const block = even(Math.floor(width / 40)), left = even(Math.floor((width - 40 * block) / 2));
const y = Math.floor(canvas.height * 23 / 24), row = canvas.getContext("2d").getImageData(0, y, canvas.width, 1).data;
return Array.from({length: 40}, (_, i) => row[4 * Math.floor((left + (i + 0.5) * block) * canvas.width / width)] > 98);
"""


def write_media(folder: Path) -> None:
    """A tone that sounds two seconds of six, and pictures that are black or stand still."""
    tone = [round(16_000 * math.sin(math.tau * 440 * i / 48_000)) for i in range(48_000)]
    with wave.open(str(folder / "tone.wav"), "wb") as file:
        file.setparams((1, 2, 48_000, 0, "NONE", ""))
        file.writeframes(bytes(4 * 2 * 48_000) + 2 * struct.pack("<48000h", *tone))
    ramp = bytes(16 + (x + y) % 200 for y in range(180) for x in range(320))
    for name, picture in ("black.y4m", bytes([16]) * (320 * 180)), ("still.y4m", ramp):
        (folder / name).write_bytes(b"YUV4MPEG2 W320 H180 F25:1 Cmono\nFRAME\n" + picture)


class MonitorPageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = Path(folder.name)
        write_media(cls.folder)
        (cls.folder / "test.rig").write_text(f"{RIG}[script]\n{SCRIPT}")
        command = [BUILD / "bin/brvhost", "--quiet", "--rig", cls.folder / "test.rig", "monitor"]
        cls.host = subprocess.Popen([*command, "--port", "0", "--folder", cls.folder, "--seconds", "300"],
                                    stdout=subprocess.PIPE, text=True)
        cls.addClassCleanup(cls.end_host)
        options = Options()
        options.binary_location = "/usr/bin/chromium"
        for argument in ("headless", "no-sandbox", "disable-gpu", "disable-quic", "no-first-run", "disable-sync",
                         "disable-background-networking", "disable-component-update", "disable-dev-shm-usage",
                         "window-size=1920,1080", f"user-data-dir={cls.folder / 'browser'}"):
            options.add_argument("--" + argument)
        cls.page = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))
        cls.addClassCleanup(cls.page.quit)
        assert cls.host.stdout
        cls.page.get(cls.host.stdout.readline().strip())

    @classmethod
    def end_host(cls) -> None:
        cls.host.send_signal(signal.SIGINT)
        assert cls.host.wait(PATIENCE) == 0
        cls.host.stdout.close()

    def wait(self, what: str, ask: Callable[[], Result]) -> Result:
        """What `ask` returns, once that is something."""
        end = time.monotonic() + PATIENCE
        while True:
            try:
                if found := ask():
                    return found
            except (StopIteration, StaleElementReferenceException):
                pass  # not there yet, or no more
            if time.monotonic() > end:
                self.page.save_screenshot(str(BUILD / "monitor-failed.png"))
                self.fail(f"{what}: waited in vain, see {BUILD / 'monitor-failed.png'}")
            time.sleep(0.05)

    def find(self, selector: str, within: WebElement | None = None) -> WebElement:
        return (within or self.page).find_element(By.CSS_SELECTOR, selector)

    def text(self, selector: str, within: WebElement | None = None) -> str:
        return self.find(selector, within).text

    def names(self) -> list[str]:
        """Of the tiles, all at one moment."""
        script = "return [...document.querySelectorAll('.tile .name')].map(name => name.textContent)"
        return self.page.execute_script(script)

    def tile(self, name: str) -> WebElement:
        return next(tile for tile in self.page.find_elements(By.CLASS_NAME, "tile") if self.text(".name", tile) == name)

    def number_after(self, last: int, root: WebElement, width: int) -> int | None:
        """Of the frame in the picture that is drawn, as far as that is whole."""
        blocks = self.page.execute_script(READ_BLOCKS, self.find("canvas", root), width)
        code = int("".join("01"[block] for block in blocks), 2)
        number, check = code >> 8, code & 0xFF
        is_whole = check == (number * 2_654_435_761 & 0xFFFFFFFF) >> 24 ^ 0xA5
        return number if is_whole and number > last else None

    def expect_later_pictures(self, root: WebElement, width: int) -> None:
        last = -1
        for _ in range(4):
            last = self.wait(f"a picture after {last}", lambda: self.number_after(last, root, width))

    def level(self, tile: WebElement) -> float:
        return float(self.page.execute_script(
            "return arguments[0].querySelector('.meter').style.getPropertyValue('--level')", tile) or 0)

    def test_pictures_go_on_and_levels_follow_the_sound(self) -> None:
        self.expect_later_pictures(self.wait("a tile", lambda: self.tile("Balcony Video")), 1920)
        camera = self.tile("Studio Camera Video")
        self.expect_later_pictures(camera, 1280)
        for _ in range(2):
            self.wait("the tone", lambda: self.level(camera) > 0.7)
            self.wait("silence", lambda: self.level(camera) == 0)

    def test_tiles_come_and_go_and_say_what_is_wrong(self) -> None:
        self.wait("a plugged source", lambda: "Guest Video" in self.names())
        self.wait("that it is unplugged", lambda: "Guest Video" not in self.names())
        self.expect_later_pictures(self.wait("it again", lambda: self.tile("Guest Video")), 640)
        notices = {"Stage Left": "black", "Stage Right": "frozen", "Tripod": "the camera is too hot.",
                   "Studio Camera": "silent"}
        for name, notice in notices.items():
            self.wait(f"{name}: {notice}", lambda: notice in self.text(".screen", self.tile(f"{name} Video")).lower())
        self.wait("the error", lambda: "The camera is too hot." in self.text("#log .error"))
        self.page.save_screenshot(str(BUILD / "monitor.png"))
        print(BUILD / "monitor.png")

    def test_a_setting_changes_the_picture_and_recordings_are_whole(self) -> None:
        self.wait("a tile", lambda: self.tile("Studio Camera Video")).click()
        dialog = self.find("#large")
        self.expect_later_pictures(dialog, 1280)
        choice = self.wait("settings", lambda: next(label for label in dialog.find_elements(By.TAG_NAME, "label")
                                                    if label.text.startswith("Video Settings")))
        Select(self.find("select", choice)).select_by_index(1)
        self.wait("the new size", lambda: self.text(".format", dialog).startswith("640 × 480"))
        self.expect_later_pictures(dialog, 640)
        self.assertEqual([self.find("canvas", dialog).get_property(side) for side in ("width", "height")], [640, 480])

        self.find("#record").click()
        self.wait("two seconds", lambda: self.text("#progress").startswith("00:00:02"))
        self.page.save_screenshot(str(BUILD / "monitor-large.png"))
        print(BUILD / "monitor-large.png")
        self.find("#record").click()
        account = self.wait("the account", lambda: self.text("#answer"))
        delivered = re.search(r"pictures.*delivered (\d+), missing 0, not written 0", account)
        assert delivered, account
        [file] = self.folder.glob("Studio Camera Video*.mkv")
        probe = ["ffprobe", "-v", "error", "-select_streams", "v", "-count_frames", "-of", "csv=p=0", "-show_entries",
                 "stream=width,height,nb_read_frames"]
        shape = subprocess.run([*probe, file], check=True, capture_output=True, text=True).stdout.strip()
        self.assertEqual(shape, f"640,480,{delivered[1]}")
        decode = ["ffmpeg", "-v", "error", "-i", file, "-f", "null", "-"]
        decoded = subprocess.run(decode, capture_output=True, text=True)
        self.assertEqual((decoded.returncode, decoded.stderr), (0, ""))
        self.find("#close").click()


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], failfast=True)
