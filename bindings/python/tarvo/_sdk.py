"""The SDK: one in a process."""

import asyncio
import contextlib
import dataclasses
import itertools
import logging
import os
import pathlib
import select
import threading
import time
from collections.abc import Callable, Iterable, Mapping
from datetime import datetime
from typing import Any, TypeVar

from . import _log
from ._callbacks import Once, Receiver, Subscribers, Subscription, Table, check_seconds, hold, let_go, may_come
from ._errors import ClosedError, ForkedError, RefusedError, SecondSdkError, TarvoError, check
from ._history import History, Trip
from ._native import ffi, lib
from ._reading import Reading
from ._records import (
    Alert,
    AppState,
    Battery,
    Fix,
    FlushResult,
    Mode,
    Permission,
    PermissionRequest,
    TransferOptions,
    fill_fix,
)
from ._streams import Event, PredictionUpdated, RouteMatched, Stream
from ._values import json_of, path_of, record, seconds_of, string, text_of

T = TypeVar("T")

_PIECE = 256  # fixes that are handed on at a time
_SLICE = 0.2  # seconds that a wait leaves signals unheard

_lock = threading.Lock()
_current: "Sdk | None" = None
_process: int | None = None  # that has had an Sdk


def set_manual_clock(start: datetime) -> None:
    """A clock that stands still until it is moved, for tests and recordings; before the first Sdk."""
    check(lib.tarvo_set_manual_clock(seconds_of(start)))


def move_clock(to: datetime) -> bool:
    """Only forwards. False without such a clock."""
    return check(lib.tarvo_move_clock(seconds_of(to)))


def version() -> str:
    """The SDK's version, as "0.1.0"."""
    return string(lib.tarvo_version())


class Sdk(Reading):
    """Collects positions, keeps them under `home`, and uploads them.

    One in a process: a second is refused until the first is closed. What the arguments say holds for the process; a
    later Sdk can only repeat it (TooLateError). `info` has options as tarvo/HostKeys.h names them. Without `log`
    nobody gets the SDK's messages, which hold secrets.

    Any thread may call. The main queue (prompts, alerts, probes) moves on the main thread alone: while a call of this
    class waits there, in run_pending, or in an asyncio loop that runs there, once the Sdk is used with "async with" or
    gives it a stream.
    """

    def __init__(
        self,
        home: str | os.PathLike[str],
        *,
        server: str | None = None,
        allow_plain_http: bool = False,
        client_id: str | None = None,
        api_key: str | None = None,
        api_secret: str | None = None,
        bundle_id: str | None = None,
        info: Mapping[str, Any] | None = None,
        info_file: str | os.PathLike[str] | None = None,
        transfer: TransferOptions | None = None,
        document_directories: Iterable[str | os.PathLike[str]] = (),
        log: logging.Logger | None = None,
    ) -> None:
        global _current, _process
        self.home = pathlib.Path(os.fsdecode(home))
        self._handle: Any = None
        if _process not in (None, os.getpid()):
            raise ForkedError("not in a forked child")
        described = dict(info or {})
        named = {"TarvoClientID": client_id, "TarvoApiKey": api_key, "CFBundleIdentifier": bundle_id}
        described.update((key, value) for key, value in named.items() if value is not None)
        with _lock:
            if _current is not None:
                raise SecondSdkError("the process has its Sdk: use that one, or close it first")
            may_come(os.getpid())
            _log.take_over(log)
            check(lib.tarvo_set_home(path_of(home)))
            if info_file is not None:
                check(lib.tarvo_set_info_file(path_of(info_file)))
            if described:
                check(lib.tarvo_set_info(json_of(described)))
            if server is not None:
                check(lib.tarvo_set_server(text_of(server), allow_plain_http))
            if transfer is not None:
                _set_transfer_options(transfer)
            directories = [ffi.new("char[]", path_of(directory)) for directory in document_directories]
            if directories:
                check(lib.tarvo_set_document_directories(ffi.new("char *[]", directories), len(directories)))
            out = ffi.new("tarvo_sdk **")
            result = lib.tarvo_sdk_new(out)
            if result == lib.TARVO_ALREADY:
                raise SecondSdkError("another part of the process has the SDK")
            check(result)
            self._handle = out[0]
            _current, _process = self, os.getpid()
        self._subscribers = Subscribers()
        self._table_lock = threading.RLock()
        self._receiver: Receiver | None = None
        self._prompt: Callable[[PermissionRequest], None] | None = None
        self._streams: list[Stream[Any]] = []
        self._loop: asyncio.AbstractEventLoop | None = None
        self._is_active = False
        try:
            self._set_table()
            if api_secret is not None:
                self.set_api_key_secret(api_secret)
        except BaseException:
            self._free()
            raise

    @property
    def _live(self) -> Any:
        if self._handle is None:
            raise ClosedError("the Sdk was closed")
        return self._handle

    def _set_table(self) -> None:
        table = ffi.new("tarvo_callbacks *")
        lib.gated_table(table, self._receiver is not None, self._prompt is not None)
        table.user = hold(Table(self._subscribers, self._receiver, self._prompt))
        try:
            check(lib.tarvo_set_callbacks(self._live, table))
        except BaseException:
            let_go(table.user)  # what is refused is not released
            raise

    # ---- The end ----

    def close(self, seconds: float = 5) -> None:
        """Stops collecting, having waited up to so many seconds until what was delivered is written; its end is waited
        for as long at most. Then the process may have another Sdk. Inside a callback it cannot wait, and what is not
        yet written is lost."""
        if self._handle is not None:
            try:
                self._settle(seconds)
            finally:
                self._free()

    def _settle(self, seconds: float) -> None:
        with contextlib.suppress(TarvoError):  # in a callback, or in a child
            try:
                self.wait_until_idle(seconds)
            finally:  # Ctrl-C ends the wait; collection ends too
                if self._is_active:
                    self.activate(Mode.DEACTIVATED)
                    self.wait_until_idle(seconds)

    def _free(self) -> None:
        global _current
        with _lock:
            handle, self._handle = self._handle, None
            if handle is None:
                return
        self._leave_loop()
        for stream in self._streams:
            stream.end()
        lib.tarvo_sdk_free(handle)
        with _lock:
            if _current is self:
                _current = None

    def __enter__(self) -> "Sdk":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    async def __aenter__(self) -> "Sdk":
        self.pump_in(asyncio.get_running_loop())
        return self

    async def __aexit__(self, *_: object) -> None:
        if self._handle is not None:
            try:
                await asyncio.to_thread(self._settle, 5)
            finally:
                self._free()

    # ---- Collecting ----

    def activate(self, mode: Mode | int) -> None:
        """Starts collection in that mode; DEACTIVATED ends it."""
        check(lib.tarvo_activate(self._live, mode))
        self._is_active = mode != Mode.DEACTIVATED

    @property
    def mode(self) -> Mode | int:
        """DEACTIVATED at first; a plain number where it is none of Mode."""
        mode: int = lib.tarvo_active_mode()
        return Mode(mode) if mode in Mode._value2member_map_ else mode

    def read_in_mode(self, mode: Mode | int) -> None:
        """The mode alone, for a program that only reads: it writes nothing, and no writing process keeps it out."""
        check(lib.tarvo_set_active_mode(self._live, mode))

    def service_connect(self) -> None:
        """Starts standard updates and stores the last known position again; activate has done so."""
        check(lib.tarvo_service_connect(self._live))

    def request_location_update(self) -> None:
        """Lets new positions reach on_locations and fixes(); nothing in mode DEACTIVATED."""
        check(lib.tarvo_request_location_update(self._live))

    def stop_location_update(self) -> None:
        """Keeps them from there; collection goes on."""
        check(lib.tarvo_stop_location_update(self._live))

    def claim_store(self, seconds: float = 0) -> None:
        """Takes the right to write to the home now, waiting so long for another process; RefusedError says why."""
        why = ffi.new("char **")
        result = lib.tarvo_claim_store(self._live, seconds, why)
        if result == lib.TARVO_REFUSED:
            reason = string(why[0])
            lib.tarvo_free(why[0])
            raise RefusedError(reason)
        check(result)

    def deliver(self, fixes: Fix | Iterable[Fix]) -> None:
        """What a receiver gave, oldest first; queued. One that is not finite, off the globe or of an impossible time is
        left out, and counted in health(). What cannot be taken (a naive time, no Fix) raises; of those before it, whole
        pieces of 256 have been delivered."""
        self._live
        rest = iter((fixes,) if isinstance(fixes, Fix) else fixes)
        while piece := list(itertools.islice(rest, _PIECE)):
            records = ffi.new("tarvo_fix[]", len(piece))
            for fix, out in zip(piece, records):
                fill_fix(fix, out)
            check(lib.tarvo_deliver(records, len(piece)))

    def report_failure(self, code: int) -> None:
        """Positioning itself fails: 0 no place for now, 1 the receiver may not be used."""
        check(lib.tarvo_report_failure(code))

    def set_receiver(self, receiver: Receiver | None) -> None:
        """What the SDK switches on and off, on its delivery queue. The one before is stopped; one that stays is
        stopped and started where the prompt changes."""
        with self._table_lock:
            self._receiver = receiver
            self._set_table()

    def set_prompt(self, prompt: Callable[[PermissionRequest], None] | None) -> None:
        """Asks the user; answered by setting `permission`. On the main queue."""
        with self._table_lock:
            self._prompt = prompt
            self._set_table()

    @property
    def permission(self) -> Permission:
        """What the user has decided."""
        return Permission(lib.tarvo_get_permission())

    @permission.setter
    def permission(self, permission: Permission) -> None:
        check(lib.tarvo_set_permission(permission))

    @property
    def app_state(self) -> AppState:
        """To be set on the main thread. While collection is on, all but INACTIVE store the last position again.
        What each changes: docs/phone.md."""
        return AppState(lib.tarvo_get_app_state())

    @app_state.setter
    def app_state(self, state: AppState) -> None:
        check(lib.tarvo_set_app_state(state))

    def app_launched(self) -> None:
        """It has started; once, after activate. Stores the last position again, and goes by the battery as in the
        background until app_state is set to ACTIVE."""
        check(lib.tarvo_app_launched())

    def set_battery(self, state: Battery, level: float | None = None) -> None:
        """The host knows better than the system, from now on. `level`: 0 to 1, or None when it is unknown."""
        check(lib.tarvo_set_battery(state, -1 if level is None else level))

    # ---- Being told ----

    def on_locations(self, function: Callable[[tuple[Fix, ...]], object]) -> Subscription:
        """On the delivery queue; later fixes wait meanwhile."""
        return self._subscribers.add("locations", function)

    def on_route_matched(self, function: Callable[[History], object]) -> Subscription:
        """On the queue of past trips, after request_route_match."""
        return self._subscribers.add("route_matched", function)

    def on_prediction(self, function: Callable[[Trip], object]) -> Subscription:
        """On the queue of the backend's replies, after request_prediction_update."""
        return self._subscribers.add("prediction", function)

    def on_alert(self, function: Callable[[Alert], bool]) -> Subscription:
        """Whether it was shown. On the main queue, as the three below."""
        return self._subscribers.add("alert", function)

    def on_open_url(self, function: Callable[[str], object]) -> Subscription:
        """For instance the page of the settings."""
        return self._subscribers.add("open_url", function)

    def on_register_for_push(self, function: Callable[[], object]) -> Subscription:
        """Answered by set_device_token."""
        return self._subscribers.add("register_for_push", function)

    def on_background_fetch_interval(self, function: Callable[[float], object]) -> Subscription:
        """The least seconds between two background fetches."""
        return self._subscribers.add("background_fetch_interval", function)

    def fixes(self, limit: int = 1000) -> Stream[Fix]:
        """For `async for`, in a running loop: what on_locations is told from now on."""

        def put(stream: Stream[Fix], fixes: tuple[Fix, ...]) -> None:
            for fix in fixes:
                stream.put(fix)

        stream: Stream[Fix] = Stream(limit, asyncio.get_running_loop())
        stream.subscribe(lambda: self.on_locations(lambda fixes: put(stream, fixes)))
        return self._started(stream)

    def events(self, limit: int = 100) -> Stream[Event]:
        """The same for past trips and predictions."""
        stream: Stream[Event] = Stream(limit, asyncio.get_running_loop())
        stream.subscribe(lambda: self.on_route_matched(lambda history: stream.put(RouteMatched(history))))
        stream.subscribe(lambda: self.on_prediction(lambda trip: stream.put(PredictionUpdated(trip))))
        return self._started(stream)

    def _started(self, stream: Stream[T]) -> Stream[T]:
        self._live
        self._streams = [one for one in self._streams if not one.has_ended] + [stream]
        self.pump_in(asyncio.get_running_loop())
        return stream

    def background_events(self, identifier: str, done: Callable[[], None]) -> bool:
        """For a process that was started to finish transfers: `done` comes on the main queue. False for another's."""
        return self._once(lib.tarvo_background_events, done, text_of(identifier))

    def probe(self, answered: Callable[[], None]) -> None:
        """For a watchdog: `answered` comes on the main queue, once the question has gone through the engine."""
        self._once(lib.tarvo_probe, answered)

    def _once(self, function: Any, handler: Callable[[], None], *arguments: Any) -> bool:
        user = hold(Once(handler))
        try:
            once, released = ffi.addressof(lib, "gated_once"), ffi.addressof(lib, "gated_released")
            accepted = check(function(self._live, *arguments, once, user, released))
        except BaseException:
            let_go(user)
            raise
        if not accepted:
            let_go(user)
        return accepted

    # ---- The main queue, and waits ----

    def fileno(self) -> int:
        """Readable while run_pending has something to do: for select and its like."""
        self._live
        return int(lib.tarvo_main_fd())

    def run_pending(self) -> int:
        """Runs what waits on the main queue now; main thread only. How much that was."""
        self._live
        count = ffi.new("size_t *")
        check(lib.tarvo_main_run_pending(count))
        return int(count[0])

    def run_for(self, seconds: float) -> None:
        """Sleeps, running the main queue meanwhile; main thread only."""
        until = time.monotonic() + check_seconds(seconds)
        poll = select.poll()
        poll.register(self, select.POLLIN)
        while True:
            self.run_pending()
            left = until - time.monotonic()
            if left <= 0:
                return
            poll.poll(min(left, 86400) * 1000)  # more than some weeks poll cannot take

    def pump_in(self, loop: asyncio.AbstractEventLoop) -> bool:
        """Lets an asyncio loop run the main queue, until the Sdk is closed. False where that loop does not run on the
        process's main thread: then the main thread has to."""
        if threading.get_native_id() != os.getpid():
            return False
        if self._loop is not loop:
            self._leave_loop()
            loop.add_reader(self.fileno(), self._pump)
            self._loop = loop
        return True

    def _pump(self) -> None:
        if self._handle is not None:  # another thread may be closing it
            lib.tarvo_main_run_pending(ffi.NULL)

    def _leave_loop(self) -> None:
        loop, self._loop = self._loop, None
        descriptor = lib.tarvo_main_fd()
        if descriptor >= 0 and loop is not None and not loop.is_closed():  # a child shares the selector of its parent
            if threading.get_native_id() == os.getpid():
                loop.remove_reader(descriptor)
            else:
                loop.call_soon_threadsafe(loop.remove_reader, descriptor)

    def wait_until_idle(self, seconds: float) -> bool:
        """Until all queued work and all transfers are done; on the main thread it runs the main queue. False when the
        time was up. Signals are heard meanwhile."""
        until = time.monotonic() + check_seconds(seconds)
        while True:
            left = max(0.0, until - time.monotonic())
            if check(lib.tarvo_wait_until_idle(self._live, min(left, _SLICE))):
                return True
            if left <= _SLICE:
                return False

    def flush(self, seconds: float) -> FlushResult:
        """Uploads what has been collected, up to so many seconds. A handler of a signal runs once it has ended; to hear
        signals, or not to hold up a loop, call it on a thread of its own (asyncio.to_thread)."""
        out = ffi.new("tarvo_flush_result *")
        check(lib.tarvo_flush(self._live, check_seconds(seconds), out))
        return FlushResult(out[0])


def _set_transfer_options(options: TransferOptions) -> None:
    given = record("tarvo_transfer_options")
    kept = []  # until they are copied
    for name in (field.name for field in dataclasses.fields(TransferOptions)):
        text = getattr(options, name)
        if text is not None:
            kept.append(ffi.new("char[]", text_of(text)))
            setattr(given, name, kept[-1])
    check(lib.tarvo_set_transfer_options(given))
