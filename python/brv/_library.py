"""The library, its sources, and who calls what on which thread.

Every call that changes something is made on the thread that serves the frameworks' main queue, so that no two meet and
no source comes or goes in the middle of one. Data callbacks come on capture queues and make read-only calls alone.
"""

from __future__ import annotations

import atexit
import os
import threading
from collections import deque
from collections.abc import Callable
from types import TracebackType
from typing import Any, NamedTuple, TypeVar
from xml.etree import ElementTree

from brv import _abi
from brv._abi import CaptureError
from brv._media import Frame, Sound
from brv._settings import Settings
from brv._stream import Stream

T = TypeVar("T")

_OF_NO_SOURCE = 1  # an error code that asks for no source's error


class Change(NamedTuple):
    """Devices were plugged in or pulled: the identifiers of the sources that came and went by that, if any."""

    added: tuple[str, ...]
    removed: tuple[str, ...]


class Library:
    """The plug-in's sources. One at a time in a process; to be closed, which a `with` does, and at the latest the end
    of the interpreter. Any thread may use it, but no callback of a stream.

    `module` is the plug-in's file; else the environment's BRV_MODULE names it, or it is looked for where it is
    installed. `rig` is what CAPTURE_RIG would be: "demo", or the path of a rig file; the first library of a process
    decides for those after it. `log` gets the module's log, level and line, on any of its threads.
    """

    _open: Library | None = None
    _opening = threading.Lock()

    def __init__(self, module: str | os.PathLike[str] | None = None, rig: str | os.PathLike[str] | None = None,
                 log: Callable[[int, str], None] | None = None) -> None:
        self._abi = _abi.load(module)
        self._log = log
        self._lines: deque[str] = deque(maxlen=100)  # of the log, from the serving thread
        self._calls = threading.RLock()
        self._is_closed = False
        self._callback_thread = threading.local()
        self._serving_thread = 0
        self._streams: dict[tuple[str, str], _Capture] = {}  # by identifier and medium
        self._sources: tuple[str, ...] = ()
        self._callbacks = (_abi.LogCallback(self._on_log), _abi.StateCallback(self._on_state))
        #: What is plugged in and pulled, as `Change`; the latest 64.
        self.changes: Stream[Change] = Stream(64)
        with Library._opening:
            if Library._open:
                raise RuntimeError("another library is open in this process")
            self._loop = self._abi.CFRunLoopGetMain()
            if not self._abi.CFRunLoopStartThread(self._loop):
                raise CaptureError("no thread for the main queue")
            Library._open = self
        try:
            self._on_main_thread(lambda: self._begin(rig))
        except BaseException:
            self.close()
            raise

    @property
    def sources(self) -> list[Source]:
        """Those that are there now."""
        return [Source(self, identifier) for identifier in self._sources]

    def __getitem__(self, name: str) -> Source:
        """The source of that identifier, or the one whose identifier begins with `name`; else KeyError."""
        found = [each for each in self.sources if each.name == name]
        found = found or [each for each in self.sources if each.name.startswith(name)]
        if len(found) != 1:
            known = ", ".join(self._sources) or "none"
            raise KeyError(f"{name!r} is {'more than one' if found else 'no'} source; there are: {known}")
        return found[0]

    @property
    def provider(self) -> str:
        """Where the devices come from."""
        return str(self._on_main_thread(lambda: _abi.property_of(
            self._abi, _abi.text_of(self._abi.BRV_GetDeviceId, None).encode(), b"provider")) or "")

    def close(self) -> None:
        """Stops every source, ends every stream. When it returns, no callback is running or will be called. Pictures
        that are kept stay readable."""
        with self._calls:
            if self._is_closed:
                return
            self._on_main_thread(self._abi.BRV_UninitializeLibrary)
            self._is_closed = True
            self._abi.CFRunLoopEndThread(self._loop)
        for capture in self._streams.values():
            capture.stream._end()
        self._streams.clear()
        self.changes._end()
        Library._open = None

    def __enter__(self) -> Library:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def _begin(self, rig: str | os.PathLike[str] | None) -> None:
        former = os.environ.get("CAPTURE_RIG")
        if rig is not None:
            os.environ["CAPTURE_RIG"] = os.fspath(rig)
        self._serving_thread = threading.get_ident()
        on_log, on_state = self._callbacks
        self._abi.BRV_IntitializeLibrary()
        self._abi.BRV_RegisterLogCallback(None, on_log, _abi.CONTEXT)
        self._abi.BRV_RegisterDeviceStateChangedCallback(None, on_state, _abi.CONTEXT)
        self._sources = self._list()
        if former is not None:
            os.environ["CAPTURE_RIG"] = former
        else:
            os.environ.pop("CAPTURE_RIG", None)

    def _on_main_thread(self, work: Callable[[], T]) -> T:
        """Does `work` where no source comes or goes meanwhile, and returns what it returns or raises what it raises."""
        if getattr(self._callback_thread, "is_in_callback", False):
            raise RuntimeError("a stream's callback cannot do this")
        results: list[T] = []
        errors: list[BaseException] = []

        def run(_: Any) -> None:
            try:
                results.append(work())
            except BaseException as error:  # nothing may be thrown through the module
                errors.append(error)

        with self._calls:
            if self._is_closed:
                raise RuntimeError("the library is closed")
            if not self._abi.CFRunLoopPerformAndWait(self._loop, _abi.Work(run), None):
                raise MemoryError
        if errors:
            raise errors[0]
        return results[0]

    # On the serving thread

    def _list(self) -> tuple[str, ...]:
        count = self._abi.BRV_GetSourceCount()
        return tuple(_abi.text_of(self._abi.BRV_GetSourceId, None, index) for index in range(count))

    def _on_state(self, _: Any, state: int) -> None:
        former, self._sources = self._sources, self._list()
        for (identifier, _medium), capture in list(self._streams.items()):
            if identifier not in self._sources or capture.has_other_source():
                capture.lose()
        self.changes._put(Change(tuple(each for each in self._sources if each not in former),
                                 tuple(each for each in former if each not in self._sources)))

    def _on_log(self, _: Any, level: int, _format: bytes, _place: bytes, message: bytes) -> None:
        line = message.decode("utf-8", "replace").rstrip()
        if threading.get_ident() == self._serving_thread:
            self._lines.append(line)
        if self._log:
            self._log(level, line)

    def _message(self, code: int) -> str:
        """The module's message for an error code; empty without one, when the module would repeat the last."""
        former = _abi.text_of(self._abi.BRV_GetErrorMessage, None, None, _OF_NO_SOURCE)
        message = _abi.text_of(self._abi.BRV_GetErrorMessage, None, None, code)
        return "" if message == former else message

    def _error_of(self, identifier: str) -> str:
        sources = self._list()
        if identifier not in sources:
            return "it is not plugged in any more"
        pending = _abi.property_of(self._abi, identifier.encode(), b"error")
        if pending:
            _abi.text_of(self._abi.BRV_GetErrorMessage, None, None, -sources.index(identifier))  # takes it
        return str(pending or "")


class Source:
    """One camera, microphone or camcorder, known by its identifier. A camera and its microphone are one source."""

    def __init__(self, library: Library, identifier: str) -> None:
        self._library = library
        self.name = identifier
        self._id = identifier.encode()
        self.settings = Settings(self)

    def __repr__(self) -> str:
        return f"<Source {self.name!r}>"

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Source) and (other._library, other.name) == (self._library, self.name)

    def __hash__(self) -> int:
        return hash(self.name)

    @property
    def has_video(self) -> bool:
        return self._supports(b"ProvidesVideo")

    @property
    def has_audio(self) -> bool:
        return self._supports(b"ProvidesAudio")

    @property
    def is_hdv(self) -> bool:
        return self._supports(b"HDV")

    @property
    def device_id(self) -> str:
        """The identifier of its device; where there is sound, the one of the microphone."""
        return str(self._property(b"device_id") or "")

    @property
    def frame_duration(self) -> float | None:
        """In seconds; None before the first picture or sound."""
        duration, ticks = self._property(b"frame_duration"), self._ticks_per_second()
        return int(duration) / ticks if duration and ticks > 0 else None

    @property
    def error(self) -> str | None:
        """What keeps it from delivering at the moment, told once: another program has the camera, say."""
        return self._library._on_main_thread(lambda: self._library._error_of(self.name)) or None

    def frames(self, capacity: int = 4, callback: Callable[[Frame], object] | None = None) -> Stream[Frame]:
        """Starts the source and returns its pictures as they come; `capacity` of them wait, see Stream. With
        `callback`, that is called with each instead, on the capture queue: it must be done before the next picture,
        and call nothing of this package but what the frame has. A source has one stream of pictures: a former one ends.
        Blocks until the source runs. Raises CaptureError where it has no pictures, or cannot be started or configured.

        The stream ends when the source goes. While only the camera of a pair is away, nothing comes.
        """
        return _Capture(self, "video", Stream(capacity), callback).open()

    def sound(self, capacity: int = 256, callback: Callable[[Sound], object] | None = None) -> Stream[Sound]:
        """The same for its sound: runs of some 500 samples."""
        return _Capture(self, "audio", Stream(capacity), callback).open()

    def picture(self, timeout: float = 5.0) -> Frame:
        """One picture, taken now. Raises CaptureError when none comes in time."""
        with self.frames() as frames:
            frame = frames.get(timeout)
        return frame or self._fail(f"no picture in {timeout:g} s" + (f": {error}" if (error := self.error) else ""))

    def account(self, medium: str) -> dict[str, int]:
        """What became of the samples of "video" or "audio" since the source is there: "captured" is the sum of the
        others, "delivered", "late", "no_buffer" and so on. Empty for a medium that it lacks. Callbacks may ask too."""
        text = self._property(f"{medium}_account".encode())
        record = ElementTree.fromstring(str(text)) if text else ()
        return {field.get("name", ""): int(field.get("value", "0")) for field in record if field.tag != "record"}

    def _supports(self, name: bytes) -> bool:
        return bool(self._library._abi.BRV_SourceSupportsProperty(None, self._id, name))

    def _property(self, name: bytes) -> int | str | None:
        return _abi.property_of(self._library._abi, self._id, name)

    def _ticks_per_second(self) -> int:
        return int(self._library._abi.BRV_GetTimescaleTicksPerSec(None, self._id))

    # For Settings

    def _options_text(self, parameter: str) -> str:
        return self._record(lambda abi: _abi.text_of(abi.BRV_QueryParameterOptions, None, self._id, parameter.encode()))

    def _settings_text(self) -> str:
        return self._record(lambda abi: _abi.text_of(abi.BRV_GetSourceSettings, None, self._id))

    def _record(self, ask: Callable[[Any], str]) -> str:
        library = self._library
        return library._on_main_thread(lambda: ask(library._abi)) or self._fail("it is not plugged in any more")

    def _fail(self, reason: str) -> Any:
        raise CaptureError(f"{self.name}: {reason}")

    def _set(self, record: str) -> None:
        library = self._library

        def work() -> None:
            if self.name not in library._list():
                self._fail("it is not plugged in any more")
            library._lines.clear()
            code = library._abi.BRV_SetSourceSettings(None, self._id, record.encode())
            reason = code <= 0 and (library._message(code) or (library._lines and library._lines[-1]) or "refused")
            if not any(identifier == self.name for identifier, _ in library._streams):
                # The setting has started it, and nobody hears it.
                library._abi.BRV_RegisterVideoDataArrivedCallback(None, self._id, _abi.NO_VIDEO_CALLBACK, None)
            if reason:
                self._fail(reason)

        library._on_main_thread(work)


class _Capture:
    """One medium of a source on its way into a stream, from the registration to its end."""

    def __init__(self, source: Source, medium: str, stream: Stream[Any],
                 callback: Callable[[Any], object] | None) -> None:
        self._source = source
        self._library = source._library
        self._key = (source.name, medium)
        self._take: Callable[[Any], object] = callback or stream._put
        self._ticks_per_second = 0
        abi = self._library._abi
        # Kept as long as the module may call it.
        if medium == "video":
            self._function, self._none = _abi.VideoCallback(self._on_frame), _abi.NO_VIDEO_CALLBACK
            self._register = abi.BRV_RegisterVideoDataArrivedCallback
        else:
            self._function, self._none = _abi.AudioCallback(self._on_sound), _abi.NO_AUDIO_CALLBACK
            self._register = abi.BRV_RegisterAudioDataArrivedCallback
        self.stream = stream
        stream._close = self.close

    def open(self) -> Stream[Any]:
        self._library._on_main_thread(self._start)
        return self.stream

    def close(self) -> None:
        with self._library._calls:
            if not self._library._is_closed:
                self._library._on_main_thread(self._stop)

    def lose(self) -> None:
        """On the serving thread: the source is gone, and calls nobody any more."""
        self._library._streams.pop(self._key, None)
        self.stream._end(is_lost=True)

    def has_other_source(self) -> bool:
        """Whether another device has come under the name: it has not told its timescale yet."""
        return self._ticks_per_second > 0 > self._source._ticks_per_second() and self._key[1] == "video"

    def _start(self) -> None:
        library, source = self._library, self._source
        if not (source.has_video if self._key[1] == "video" else source.has_audio):
            source._fail(f"it has no {self._key[1]}, or is not plugged in any more")
        former = library._streams.pop(self._key, None)
        library._lines.clear()
        self._register(None, source._id, self._function, _abi.CONTEXT)
        if former:
            former.stream._end()
        prefix = f"Error Starting Source {source.name}: "
        failures = [line.removeprefix(prefix) for line in library._lines if line.startswith(prefix)]
        if failures:
            library._error_of(source.name)  # which is the same, and has been told with this
            self._unregister()
            source._fail(failures[-1])
        library._streams[self._key] = self

    def _stop(self) -> None:
        if self._library._streams.get(self._key) is self:
            del self._library._streams[self._key]
            self._unregister()

    def _unregister(self) -> None:
        """Which stops the whole source: the other medium's stream is registered again."""
        self._register(None, self._source._id, self._none, None)
        for (identifier, _), capture in self._library._streams.items():
            if identifier == self._source.name:
                capture._register(None, self._source._id, capture._function, _abi.CONTEXT)

    # On a capture queue

    def _on_frame(self, _: Any, buffer: Any) -> None:
        record = buffer.contents
        if record.flags & _abi.FORMAT_CHANGED or self._ticks_per_second <= 0:
            self._ticks_per_second = self._source._ticks_per_second()
        self._hand_over(Frame(self._library._abi, record, self._ticks_per_second))

    def _on_sound(self, _: Any, buffer: Any) -> None:
        record = buffer.contents
        if record.flags & _abi.FORMAT_CHANGED or self._ticks_per_second <= 0:
            # A microphone that is paired with a camera has ticks of its own.
            own = self._source._property(b"audio_timescale")
            self._ticks_per_second = int(own or self._source._ticks_per_second())
        self._hand_over(Sound(record, self._ticks_per_second))

    def _hand_over(self, item: Frame | Sound) -> None:
        thread = self._library._callback_thread
        thread.is_in_callback = True
        try:
            self._take(item)
        finally:
            thread.is_in_callback = False


@atexit.register
def _close_at_exit() -> None:
    if Library._open:
        Library._open.close()
