"""Something that goes on beside a test."""

from __future__ import annotations

import threading
from typing import Self


class Repeating:
    """Does its step again and again in a thread of its own, as long as the context lasts."""

    def __init__(self, seconds: float = 0.0, name: str | None = None) -> None:
        self._seconds = seconds
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, name=name)

    def step(self) -> None:
        raise NotImplementedError

    def rest(self) -> float:
        """The seconds until the next step."""
        return self._seconds

    def __enter__(self) -> Self:
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._stop.set()
        self._thread.join()

    def _run(self) -> None:
        while not self._stop.wait(self.rest()):
            self.step()
