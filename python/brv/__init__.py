"""Cameras, microphones and camcorders: a host of the capture-source plug-in in Python.

    with brv.Library() as library, library["HD Webcam Video"].frames() as frames:
        for frame in frames:
            print(frame.seconds, frame.array().shape)

No main loop is needed: a thread of the plug-in's frameworks notices what is plugged in and pulled. Pictures and sound
come on capture queues of the plug-in, and wait in a stream for whoever iterates it.
"""

from brv._library import Change, Library, Source
from brv._media import Frame, Level, Sound
from brv._settings import AUDIO_SETTINGS, VIDEO_FPS, VIDEO_SETTINGS, Settings
from brv._stream import Stream
from brv._abi import CaptureError

__all__ = ["AUDIO_SETTINGS", "VIDEO_FPS", "VIDEO_SETTINGS", "CaptureError", "Change", "Frame", "Level", "Library",
           "Settings", "Sound", "Source", "Stream"]
