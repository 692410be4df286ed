"""One picture, one run of sound."""

from __future__ import annotations

import math
import weakref
from array import array
from ctypes import c_uint8, string_at
from typing import TYPE_CHECKING, Any, NamedTuple

from brv import _abi

if TYPE_CHECKING:
    import numpy
    from numpy.typing import NDArray


class _Stamped:
    """Time stamps are the machine's monotonic clock (time.monotonic) where the device keeps real time."""

    ticks: int
    ticks_per_second: int

    @property
    def seconds(self) -> float:
        return self.ticks / self.ticks_per_second if self.ticks_per_second > 0 else math.nan


class Frame(_Stamped):
    """One picture: 8-bit 4:2:2, Y0 Cb Y1 Cr ('yuvs').

    Its pixels are the plug-in's own, not a copy, and cannot be written. They stay as long as the frame, or an array or
    memoryview of it, is kept. A source has about 16 of them: one whose pictures are all kept delivers no further ones.
    """

    def __init__(self, abi: Any, record: _abi.VideoBuffer, ticks_per_second: int) -> None:
        self.ticks = record.time_stamp
        self.ticks_per_second = ticks_per_second
        #: The size to show the picture at, in pixels, and the width of a pixel divided by its height.
        self.display_size = (record.width, record.height)
        self.pixel_aspect_ratio = float(record.pixel_aspect_ratio)
        self.is_format_new = bool(record.flags & _abi.FORMAT_CHANGED)
        buffer = record.data
        #: In memory: pixels in a row, rows, and bytes from one row to the next.
        self.width = int(abi.CVPixelBufferGetWidth(buffer))
        self.height = int(abi.CVPixelBufferGetHeight(buffer))
        self.row_bytes = int(abi.CVPixelBufferGetBytesPerRow(buffer))
        if abi.CVPixelBufferLockBaseAddress(buffer, _abi.READ_ONLY) != 0:
            raise _abi.CaptureError("the pixels cannot be read")
        abi.CVPixelBufferRetain(buffer)
        address = abi.CVPixelBufferGetBaseAddress(buffer)
        # Arrays and views of it refer to this object: with the last of them the buffer goes back.
        self._pixels = (c_uint8 * (self.row_bytes * self.height)).from_address(address)
        weakref.finalize(self._pixels, _give_back, abi, buffer)

    @property
    def data(self) -> memoryview:
        """The bytes, `height` rows of `row_bytes` each."""
        return memoryview(self._pixels).cast("B").toreadonly()

    def array(self) -> NDArray[numpy.uint8]:
        """The pixels as a numpy array, height x width x 2: [..., 0] is Y, [:, 0::2, 1] is Cb, [:, 1::2, 1] is Cr."""
        import numpy

        return numpy.ndarray((self.height, self.width, 2), numpy.uint8, self.data, strides=(self.row_bytes, 2, 1))


def _give_back(abi: Any, buffer: int) -> None:
    abi.CVPixelBufferUnlockBaseAddress(buffer, _abi.READ_ONLY)
    abi.CVPixelBufferRelease(buffer)


class Level(NamedTuple):
    """How loud one channel is, in decibels below full scale; -inf is silence."""

    rms: float
    peak: float


class Sound(_Stamped):
    """One run of sound: 44,100 Hz, 16 bits, left and right interleaved. A copy, since the plug-in's goes at once."""

    def __init__(self, record: _abi.AudioBuffer, ticks_per_second: int) -> None:
        self.ticks = record.time_stamp  #: of its first sample
        self.ticks_per_second = ticks_per_second
        self.rate = int(record.sample_rate)
        self.data = string_at(record.data, record.data_length)

    def __len__(self) -> int:
        """Samples of each channel."""
        return len(self.data) // 4

    def array(self) -> NDArray[numpy.int16]:
        """The samples as a numpy array, length x 2."""
        import numpy

        return numpy.frombuffer(self.data, "<i2").reshape(-1, 2)

    def levels(self) -> tuple[Level, Level]:
        """Left and right."""
        samples = array("h", self.data)
        return _level(samples[0::2]), _level(samples[1::2])


def _level(samples: array[int]) -> Level:
    def decibels(amplitude: float) -> float:
        return 20 * math.log10(amplitude / 32768) if amplitude > 0 else -math.inf

    if not samples:
        return Level(-math.inf, -math.inf)
    return Level(decibels(math.sqrt(sum(x * x for x in samples) / len(samples))),
                 decibels(max(max(samples), -min(samples))))
