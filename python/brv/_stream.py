"""What lies between the thread on which something arrives and the one that iterates it."""

from __future__ import annotations

import threading
import time
from collections import deque
from collections.abc import Callable, Iterator
from types import TracebackType
from typing import Generic, TypeVar

T = TypeVar("T")


class Stream(Generic[T]):
    """Pictures, sound or changes as they arrive, for one reader: an iterator, and a context manager that closes it.

    At most `capacity` of them wait. When one more comes, the oldest goes, since the latest is worth most, and `dropped`
    counts it. Iterating ends when the stream is closed, and once everything that waits has been handed out, when its
    library is closed or its source is gone; `is_lost` tells the last of these from the others.
    """

    def __init__(self, capacity: int, close: Callable[[], None] | None = None) -> None:
        if capacity < 1:
            raise ValueError("a stream has room for at least one")
        self._items: deque[T] = deque()
        self._changed = threading.Condition()
        self._capacity = capacity
        self._close = close
        self._is_ended = False
        self.dropped = 0
        self.is_lost = False

    def get(self, timeout: float | None = None) -> T | None:
        """The next one; None when the stream has ended, or `timeout` seconds have passed."""
        deadline = None if timeout is None else time.monotonic() + timeout
        with self._changed:
            while not self._items and not self._is_ended:
                if not self._changed.wait(None if deadline is None else deadline - time.monotonic()):
                    break
            return self._items.popleft() if self._items else None

    def close(self) -> None:
        """Ends the stream and forgets what waits. When it returns, nothing more arrives. Not from a callback."""
        if self._close:
            self._close()
        self._end()
        self._items.clear()

    def _put(self, item: T) -> None:
        with self._changed:
            if self._is_ended:
                return
            if len(self._items) == self._capacity:
                self._items.popleft()
                self.dropped += 1
            self._items.append(item)
            self._changed.notify()

    def _end(self, is_lost: bool = False) -> None:
        with self._changed:
            self.is_lost |= is_lost and not self._is_ended
            self._is_ended, self._close = True, None
            self._changed.notify_all()

    def __iter__(self) -> Iterator[T]:
        while (item := self.get()) is not None:
            yield item

    def __enter__(self) -> Stream[T]:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()
