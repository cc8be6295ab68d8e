"""What comes from threads of the SDK, for "async for"."""

import asyncio
import threading
from collections import deque
from collections.abc import AsyncIterator, Callable
from dataclasses import dataclass
from typing import Generic, TypeVar

from ._callbacks import Subscription
from ._errors import refuse
from ._history import History, Trip

T = TypeVar("T")


@dataclass(frozen=True, slots=True)
class RouteMatched:
    """After Sdk.request_route_match: new past trips."""

    history: History


@dataclass(frozen=True, slots=True)
class PredictionUpdated:
    """After Sdk.request_prediction_update."""

    trip: Trip


Event = RouteMatched | PredictionUpdated


class Stream(AsyncIterator[T], Generic[T]):
    """What has come since it was made, for one task. It holds so much at most: then the oldest goes, and is counted.
    It ends with its Sdk, or with aclose(), which "async with" calls."""

    def __init__(self, limit: int, loop: asyncio.AbstractEventLoop) -> None:
        refuse(limit < 1, "a stream holds at least one")
        self._lock = threading.Lock()
        self._waiting: deque[T] = deque(maxlen=limit)
        self._loop = loop
        self._changed = asyncio.Event()
        self._is_told = False
        self._has_ended = False
        self._subscriptions: list[Subscription] = []
        self.dropped = 0
        """How many have gone because nobody took them in time."""

    def subscribe(self, add: Callable[[], Subscription]) -> None:
        """For the Sdk: what fills the stream, and is cancelled at its end."""
        self._subscriptions.append(add())

    def put(self, thing: T) -> None:
        """For the Sdk, on any thread."""
        with self._lock:
            if self._has_ended:
                return
            self.dropped += len(self._waiting) == self._waiting.maxlen
            self._waiting.append(thing)
        self._tell()

    def end(self) -> None:
        """On any thread; what waits can still be taken."""
        for subscription in self._subscriptions:
            subscription.cancel()
        with self._lock:
            self._has_ended = True
        self._tell()

    @property
    def has_ended(self) -> bool:
        """Whether nothing more comes; what waits can still be taken."""
        return self._has_ended

    def _tell(self) -> None:
        """Wakes the task: with one call on its way at most, whatever comes."""
        with self._lock:
            if self._is_told and not self._loop.is_closed():
                return
            self._is_told = True
        try:
            self._loop.call_soon_threadsafe(self._wake)
        except RuntimeError:  # the loop was closed: nobody takes anything any more
            self._has_ended = True
            for subscription in self._subscriptions:
                subscription.cancel()

    def _wake(self) -> None:
        with self._lock:
            self._is_told = False
        self._changed.set()

    def __aiter__(self) -> "Stream[T]":
        return self

    async def __anext__(self) -> T:
        while True:
            self._changed.clear()
            with self._lock:
                if self._waiting:
                    return self._waiting.popleft()
                if self._has_ended:
                    raise StopAsyncIteration
            await self._changed.wait()

    async def __aenter__(self) -> "Stream[T]":
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.aclose()

    async def aclose(self) -> None:
        """Ends the stream and its subscription; a second call changes nothing."""
        self.end()
