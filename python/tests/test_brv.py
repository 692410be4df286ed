"""The package on the plug-in's demonstration, and on rigs of devices that fail and go; BRV_MODULE names the plug-in."""

import subprocess
import sys
import tempfile
import textwrap
import threading
import time
import unittest
from pathlib import Path

import brv

try:
    import numpy
except ImportError:
    numpy = None

PACKAGE = Path(__file__).resolve().parent.parent


class DemonstrationTest(unittest.TestCase):
    def setUp(self):
        self.library = brv.Library(rig="demo")
        self.addCleanup(self.library.close)
        self.webcam = self.library["HD Webcam"]

    def test_pictures_are_seen_without_a_copy_and_go_back_when_nobody_keeps_them(self):
        self.webcam.settings.update({brv.VIDEO_SETTINGS: "640 x 480", brv.VIDEO_FPS: 0})
        with self.webcam.frames() as frames:
            kept = [next(iter(frames)).data for _ in range(8)]
            before = [bytes(data) for data in kept]
            for _ in range(20):  # more than there are in all
                frame = frames.get(timeout=20)
                self.assertAlmostEqual(frame.seconds, time.monotonic(), delta=20)
        self.library.close()
        self.assertEqual([bytes(data) for data in kept], before)
        self.assertGreater(len(set(before)), 1)
        self.assertEqual((frame.width, frame.height, frame.display_size), (640, 480, (640, 480)))
        if numpy:
            pixels = frame.array()
            self.assertEqual((pixels.shape, pixels.dtype, pixels.flags.writeable), ((480, 640, 2), "uint8", False))
            data = frame.data
            del frame
            self.assertEqual(pixels[1].tobytes(), bytes(data[1280:2560]))

    def test_sound_has_the_level_of_the_tone_and_outlasts_the_pictures(self):
        frames, sounds = self.webcam.frames(), self.webcam.sound(capacity=4)
        self.assertIsNotNone(frames.get(timeout=20))
        frames.close()
        self.assertEqual(list(frames), [])
        for _ in range(30):  # more than could be waiting
            sound = sounds.get(timeout=20)
        for level in sound.levels():
            self.assertAlmostEqual(level.rms, -23, delta=0.5)
            self.assertAlmostEqual(level.peak, -20, delta=0.5)
        if numpy:
            self.assertEqual((sound.array().shape, sound.array().dtype), ((len(sound), 2), "int16"))
        account = self.webcam.account("audio")
        self.assertEqual(account["captured"], sum(account.values()) - account["captured"])
        self.assertGreaterEqual(account["delivered"], 30)
        self.library.close()
        self.assertFalse(sounds.is_lost)
        with self.assertRaises(RuntimeError):
            self.webcam.sound()

    def test_settings_are_chosen_by_title_or_index_and_bad_choices_change_nothing(self):
        settings = self.webcam.settings
        settings[brv.VIDEO_SETTINGS] = "1280 x 720"
        settings[brv.AUDIO_SETTINGS] = 1
        for bad in ("1 x 1", -1, 99):
            with self.assertRaises(ValueError):
                settings[brv.VIDEO_SETTINGS] = bad
        with self.assertRaises(KeyError):
            settings["Volume"] = 1
        self.assertEqual((settings[brv.VIDEO_SETTINGS], settings[brv.AUDIO_SETTINGS]), (1, 1))
        self.assertEqual(settings.options(brv.VIDEO_FPS), ["15.00", "29.97", "30.00"])

    def test_a_callback_hears_of_everything_and_may_not_call_back(self):
        outcomes, is_done = [], threading.Event()

        def take(frame):
            try:
                self.library.close()
            except RuntimeError as error:
                outcomes.append((frame.ticks, str(error)))
            if len(outcomes) == 3:
                is_done.set()

        with self.webcam.frames(callback=take):
            self.assertTrue(is_done.wait(20))
        self.assertEqual({text for _, text in outcomes}, {"a stream's callback cannot do this"})

    def test_the_oldest_goes_when_a_stream_is_full_and_what_waits_is_handed_out_at_its_end(self):
        stream = brv.Stream(2)
        for item in (1, 2, 3):
            stream._put(item)
        stream._end(is_lost=True)
        stream._put(4)
        self.assertEqual((list(stream), stream.dropped, stream.is_lost), ([2, 3], 1, True))


class ProcessTest(unittest.TestCase):
    """Each in a process of its own: its devices are those of the first library in it."""

    def run_host(self, code, rig="demo"):
        with tempfile.TemporaryDirectory() as folder:
            if rig != "demo":
                Path(folder, "rig").write_text(textwrap.dedent(rig))
                rig = f"{folder}/rig"
            code = f"import brv, threading, time\nlibrary = brv.Library(rig={rig!r})\n{textwrap.dedent(code)}"
            run = subprocess.run([sys.executable, "-X", "dev", "-c", code], cwd=PACKAGE, timeout=120, text=True,
                                 capture_output=True)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertNotIn("Traceback", run.stderr)
        return run.stdout.split("\n")[:-1]

    def test_a_device_that_is_pulled_ends_the_iteration_and_is_told_of_when_it_comes_back(self):
        camera = """
            [device]
            id = c
            name = Cam
            media = video
            video format = 64x48 yuvs, rates 30
            [script]
            at 1 s = unplug c
            at 1.2 s = plug c
            """
        said = self.run_host("""
            frames = library["Cam"].frames()
            print(sum(1 for frame in frames) > 0, frames.is_lost)
            for change in (library.changes.get(20), library.changes.get(20)):
                print(*change)
            print(library["Cam"].frames().get(20) is not None)
            """, camera)
        self.assertEqual(said, ["True True", "() ('Cam Video',)", "('Cam Video',) ()", "True"])

    def test_what_the_device_says_is_raised(self):
        broken = """
            [device]
            id = c
            name = Cam
            media = video
            video format = 64x48 yuvs, rates 30
            configuration failure = Somebody sits on it.
            """
        said = self.run_host("""
            change = lambda: library["Cam"].settings.update({"Video Settings": 0})
            for attempt in (library["Cam"].frames, library["Cam"].frames, change, change):
                try:
                    attempt()
                except brv.CaptureError as error:
                    print(error)
            """, broken)
        self.assertEqual(said, ["Cam Video: Somebody sits on it."] * 4)

    def test_the_interpreter_ends_while_sources_run(self):
        self.run_host("""
            kept = []
            library["HD Webcam"].frames(callback=kept.append)
            sounds = library["Studio"].sound()
            threading.Thread(target=lambda: [None for sound in sounds], daemon=True).start()
            while not kept:
                time.sleep(0.01)
            """)


if __name__ == "__main__":
    unittest.main()
