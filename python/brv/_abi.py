"""The plug-in's C interface (BRV_AVCapture.h) and what it takes of the frameworks', through ctypes.

ctypes lets go of the interpreter's lock in every call that it makes, and takes it in every callback. So a call that
waits for a callback to end, as an unregistration does, cannot stand in that callback's way.
"""

from __future__ import annotations

import os
import sysconfig
from ctypes import (CDLL, CFUNCTYPE, POINTER, Structure, byref, c_char_p, c_float, c_int, c_int32, c_int64, c_size_t,
                    c_uint8, c_uint64, c_void_p, cast, create_string_buffer)
from pathlib import Path
from typing import Any

MODULE_NAME = "AVCaptureDevice.so"

FORMAT_CHANGED = 0x20
PROPERTY_INT64 = 2
READ_ONLY = 1


class CaptureError(Exception):
    """The module is not there, or something in it failed; the text is the module's where it has one."""


class VideoBuffer(Structure):
    """One picture, valid during the callback; `data` is a pixel buffer."""

    _fields_ = [("format", c_int32), ("width", c_int32), ("height", c_int32), ("row_bytes", c_int32),
                ("pixel_aspect_ratio", c_float), ("reserved0", c_int32), ("time_stamp", c_int64), ("flags", c_int32),
                ("reserved1", c_int32), ("data", c_void_p)]


class AudioBuffer(Structure):
    """One run of sound, valid during the callback with the samples at `data`."""

    _fields_ = [("format", c_int32), ("sample_rate", c_int32), ("channels", c_int32), ("bits_per_sample", c_int32),
                ("data_length", c_int32), ("reserved0", c_int32), ("time_stamp", c_int64), ("flags", c_int32),
                ("reserved1", c_int32), ("data", c_void_p)]


# The log's callback takes further arguments; there are always these two, which the platform's C passes alike.
LogCallback = CFUNCTYPE(None, c_void_p, c_int, c_char_p, c_char_p, c_char_p)
StateCallback = CFUNCTYPE(None, c_void_p, c_int)
VideoCallback = CFUNCTYPE(None, c_void_p, POINTER(VideoBuffer))
AudioCallback = CFUNCTYPE(None, c_void_p, POINTER(AudioBuffer))
PropertyCallback = CFUNCTYPE(None, c_void_p, c_int, c_void_p)
Work = CFUNCTYPE(None, c_void_p)

# Takes a data callback back.
NO_VIDEO_CALLBACK = VideoCallback(0)
NO_AUDIO_CALLBACK = AudioCallback(0)

# A context that is no null pointer: with that one, a callback does not count.
CONTEXT = c_void_p(1)

_SIGNATURES: dict[str, tuple[Any, list[Any]]] = {
    "BRV_IntitializeLibrary": (c_int, []),
    "BRV_UninitializeLibrary": (None, []),
    "BRV_RegisterLogCallback": (None, [c_void_p, LogCallback, c_void_p]),
    "BRV_RegisterDeviceStateChangedCallback": (None, [c_void_p, StateCallback, c_void_p]),
    "BRV_GetDeviceId": (None, [c_void_p, c_void_p, c_void_p]),
    "BRV_GetSourceCount": (c_int, []),
    "BRV_GetSourceId": (None, [c_void_p, c_int, c_void_p, c_void_p]),
    "BRV_GetErrorMessage": (None, [c_void_p, c_void_p, c_int, c_void_p, c_void_p]),
    "BRV_RegisterVideoDataArrivedCallback": (None, [c_void_p, c_char_p, VideoCallback, c_void_p]),
    "BRV_RegisterAudioDataArrivedCallback": (None, [c_void_p, c_char_p, AudioCallback, c_void_p]),
    "BRV_SourceSupportsProperty": (c_int, [c_void_p, c_char_p, c_char_p]),
    "BRV_GetProperty": (c_int, [c_void_p, PropertyCallback, c_char_p, c_char_p, c_char_p]),
    "BRV_GetTimescaleTicksPerSec": (c_int, [c_void_p, c_char_p]),
    "BRV_QueryParameterOptions": (None, [c_void_p, c_char_p, c_char_p, c_void_p, c_void_p]),
    "BRV_GetSourceSettings": (None, [c_void_p, c_char_p, c_void_p, c_void_p]),
    "BRV_SetSourceSettings": (c_int, [c_void_p, c_char_p, c_char_p]),
    "CFRunLoopGetMain": (c_void_p, []),
    "CFRunLoopStartThread": (c_uint8, [c_void_p]),
    "CFRunLoopEndThread": (None, [c_void_p]),
    "CFRunLoopPerformAndWait": (c_uint8, [c_void_p, Work, c_void_p]),
    "CVPixelBufferRetain": (c_void_p, [c_void_p]),
    "CVPixelBufferRelease": (None, [c_void_p]),
    "CVPixelBufferLockBaseAddress": (c_int32, [c_void_p, c_uint64]),
    "CVPixelBufferUnlockBaseAddress": (c_int32, [c_void_p, c_uint64]),
    "CVPixelBufferGetBaseAddress": (c_void_p, [c_void_p]),
    "CVPixelBufferGetBytesPerRow": (c_size_t, [c_void_p]),
    "CVPixelBufferGetWidth": (c_size_t, [c_void_p]),
    "CVPixelBufferGetHeight": (c_size_t, [c_void_p]),
}


def find_module(module: str | os.PathLike[str] | None) -> Path:
    """The module's file: the one given, the one that BRV_MODULE names, or an installed one."""
    named = module or os.environ.get("BRV_MODULE")
    if named:
        return Path(named).absolute()
    multiarch = sysconfig.get_config_var("MULTIARCH") or ""
    here = Path(__file__).resolve().parents[4:5]  # the prefix, for a package in lib/python3/dist-packages
    roots = [*here, Path(sysconfig.get_config_var("prefix")), Path("/usr/local"), Path("/usr")]
    candidates = [root / "lib" / below / MODULE_NAME for root in roots for below in (multiarch, "")]
    for candidate in candidates:
        if candidate.exists():
            return candidate
    tried = ", ".join(dict.fromkeys(str(candidate.parent) for candidate in candidates))
    raise CaptureError(f"no {MODULE_NAME} in {tried}; name one as `module` or in BRV_MODULE")


def load(module: str | os.PathLike[str] | None) -> Any:
    """The loaded module with its entry points and the frameworks' functions, which it brings along."""
    path = find_module(module)
    try:
        loaded = CDLL(str(path))
        for name, (result, arguments) in _SIGNATURES.items():
            function = getattr(loaded, name)
            function.restype, function.argtypes = result, arguments
    except (OSError, AttributeError) as error:
        raise CaptureError(f"{path} cannot be used: {error}") from error
    return loaded


def text_of(function: Any, *arguments: Any) -> str:
    """The text of an entry point of the two-call convention, given the arguments in front."""
    length = c_int(0)
    function(*arguments, None, byref(length))
    buffer = create_string_buffer(length.value + 1)
    function(*arguments, buffer, byref(length))
    return buffer.raw[:length.value].decode("utf-8", "replace")


def property_of(abi: Any, source: bytes, name: bytes) -> int | str | None:
    """A property's value; None where there is none. Also from a data callback."""
    values: list[int | str] = []

    def take(_: Any, kind: int, value: int) -> None:
        if kind == PROPERTY_INT64:
            values.append(cast(value, POINTER(c_int64)).contents.value)
        else:
            values.append((cast(value, c_char_p).value or b"").decode("utf-8", "replace"))

    abi.BRV_GetProperty(None, PropertyCallback(take), name, b"", source)
    return values[0] if values else None
