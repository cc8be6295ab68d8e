"""What the SDK calls: on its own threads, through the gate of native.c.

What leaves a callback goes to sys.unraisablehook; the other subscribers are called all the same.
"""

import atexit
import functools
import itertools
import os
import threading
from collections.abc import Callable
from typing import Any, Protocol, TypeVar

from . import _log
from ._errors import ArgumentError
from ._history import History, Trip
from ._native import ffi, lib
from ._records import Alert, Fix, PermissionRequest, fix_of
from ._values import string

T = TypeVar("T")


class Receiver(Protocol):
    """A source of fixes that is switched on and off. Its fixes go to Sdk.deliver, from any thread."""

    def start(self, accuracy: float | None, /) -> None:
        """On, to so many metres (None: the best there is). Again when that has changed. Later fixes wait meanwhile."""

    def stop(self) -> None:
        """Off: nobody needs fixes. Only after a start."""


class Subscription:
    """Calls a function until it is cancelled, which "with" does too. A call under way may end behind that."""

    def __init__(self, cancel: Callable[[], None]) -> None:
        self._cancel: Callable[[], None] | None = cancel

    def cancel(self) -> None:
        """Any thread may; a second call changes nothing."""
        cancel, self._cancel = self._cancel, None
        if cancel is not None:
            cancel()

    def __enter__(self) -> "Subscription":
        return self

    def __exit__(self, *_: object) -> None:
        self.cancel()


class Subscribers:
    """The functions that one Sdk calls, by kind. A tuple is replaced, never changed: threads go through it."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._functions: dict[str, tuple[Callable[..., Any], ...]] = {}

    def add(self, kind: str, function: Callable[..., Any]) -> Subscription:
        if not callable(function):
            raise TypeError(f"{function!r} cannot be called")

        entry = functools.partial(function)  # the same function may subscribe twice
        with self._lock:
            self._functions[kind] = (*self._functions.get(kind, ()), entry)

        def remove() -> None:
            with self._lock:
                self._functions[kind] = tuple(one for one in self._functions[kind] if one is not entry)

        return Subscription(remove)

    def any(self, kind: str) -> bool:
        return bool(self._functions.get(kind))

    def tell(self, kind: str, *arguments: Any) -> list[Any]:
        return [guarded(function, *arguments) for function in self._functions.get(kind, ())]


def guarded(function: Callable[..., T], *arguments: Any) -> T | None:
    """Calls it. What it raises has nobody above it."""
    try:
        return function(*arguments)
    except BaseException as error:  # noqa: B902 - nothing may leave a callback
        lib.tell_unraisable(id(error), id(function))
        return None


class Table:
    """A table of functions for C, as long as it is in use."""

    def __init__(
        self,
        subscribers: Subscribers,
        receiver: Receiver | None,
        prompt: Callable[[PermissionRequest], None] | None,
    ) -> None:
        self.subscribers = subscribers
        self.receiver = receiver
        self.prompt = prompt


class Once:
    def __init__(self, function: Callable[[], None]) -> None:
        self.function = function


# What C holds a number of, until it says "released".
_held: dict[int, Any] = {}
_numbers = itertools.count(1)


def hold(thing: Any) -> Any:
    """The number that stands for it, as C takes it."""
    number = next(_numbers)
    _held[number] = thing
    return ffi.cast("void *", number)


def let_go(user: Any) -> None:
    _held.pop(int(ffi.cast("uintptr_t", user)), None)


def _of(user: Any) -> Any:
    return _held.get(int(ffi.cast("uintptr_t", user)))


@ffi.def_extern()  # type: ignore[misc]
def host_released(user: Any) -> None:
    let_go(user)


@ffi.def_extern()  # type: ignore[misc]
def host_once(user: Any) -> None:
    once = _of(user)
    if once is not None:
        guarded(once.function)


@ffi.def_extern()  # type: ignore[misc]
def host_locations(user: Any, fixes: Any, count: int) -> None:
    table = _of(user)
    if table is not None and table.subscribers.any("locations"):
        told: tuple[Fix, ...] = tuple(fix_of(fixes[i]) for i in range(count))
        table.subscribers.tell("locations", told)


@ffi.def_extern()  # type: ignore[misc]
def host_route_matched(user: Any, history: Any) -> None:
    table = _of(user)
    if table is not None and table.subscribers.any("route_matched"):
        table.subscribers.tell("route_matched", History(lib.tarvo_history_ref(history)))


@ffi.def_extern()  # type: ignore[misc]
def host_prediction(user: Any, trip: Any) -> None:
    table = _of(user)
    if table is not None and table.subscribers.any("prediction"):
        table.subscribers.tell("prediction", Trip(lib.tarvo_trip_ref(trip)))


@ffi.def_extern()  # type: ignore[misc]
def host_receiver_start(user: Any, accuracy: float) -> None:
    table = _of(user)
    if table is not None and table.receiver is not None:
        guarded(table.receiver.start, None if accuracy < 0 else accuracy)


@ffi.def_extern()  # type: ignore[misc]
def host_receiver_stop(user: Any) -> None:
    table = _of(user)
    if table is not None and table.receiver is not None:
        guarded(table.receiver.stop)


@ffi.def_extern()  # type: ignore[misc]
def host_prompt(user: Any, request: int) -> None:
    table = _of(user)
    if table is not None and table.prompt is not None:
        guarded(table.prompt, PermissionRequest(request))


@ffi.def_extern(error=0)  # type: ignore[misc]
def host_present_alert(user: Any, alert: Any) -> int:
    table = _of(user)
    if table is None or not table.subscribers.any("alert"):
        return 0
    return int(any(table.subscribers.tell("alert", Alert(alert))))


@ffi.def_extern()  # type: ignore[misc]
def host_open_url(user: Any, url: Any) -> None:
    table = _of(user)
    if table is not None:
        table.subscribers.tell("open_url", string(url))


@ffi.def_extern()  # type: ignore[misc]
def host_register_for_push(user: Any) -> None:
    table = _of(user)
    if table is not None:
        table.subscribers.tell("register_for_push")


@ffi.def_extern()  # type: ignore[misc]
def host_set_background_fetch_interval(user: Any, seconds: float) -> None:
    table = _of(user)
    if table is not None:
        table.subscribers.tell("background_fetch_interval", seconds)


@ffi.def_extern()  # type: ignore[misc]
def host_place(user: Any, geojson: Any) -> None:
    places = _of(user)
    if places is not None:
        places.append(string(geojson))


def check_seconds(seconds: float) -> float:
    if not 0 <= seconds < float("inf"):
        raise ArgumentError("a span of time is finite and not negative")
    return seconds


_process: int | None = None  # the one that has the SDK


def may_come(process: int) -> None:
    """From here on threads of the SDK may come in."""
    global _process
    _process = process


def _end() -> None:
    """The interpreter ends: from here on no thread of the SDK comes in. Calls under way are waited for, as threads of
    Python are."""
    if os.getpid() != _process:  # without an SDK; and a forked child has none of its threads
        return
    while not lib.gate_close(0.1):
        pass
    _log.end()


atexit.register(_end)
