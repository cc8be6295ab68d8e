"""Who is called, where, and how it ends."""

import asyncio
import gc
import os
import signal
import sys
import threading
from typing import Any

import pytest
from conftest import Run, fix_at

import tarvo
from tarvo import _callbacks
from tarvo._native import lib


def deliver(sdk: tarvo.Sdk, step: int) -> None:
    sdk.deliver(fix_at(step))
    assert sdk.wait_until_idle(60)


def test_subscribers_are_called_on_a_thread_of_the_sdk(sdk: tarvo.Sdk, monkeypatch: pytest.MonkeyPatch) -> None:
    told: list[Any] = []
    refused: list[type[Exception]] = []
    unraisable: list[Any] = []
    monkeypatch.setattr(sys, "unraisablehook", lambda args: unraisable.append((args.exc_type, args.object.func)))

    def waits(fixes: tuple[tarvo.Fix, ...]) -> None:
        for call in (lambda: sdk.wait_until_idle(1), lambda: sdk.flush(1), sdk.erase_everything, sdk.run_pending):
            try:
                call()
            except tarvo.TarvoError as error:
                refused.append(type(error))
        sdk.history()  # what does not wait may be called

    def breaks(fixes: tuple[tarvo.Fix, ...]) -> None:
        raise KeyboardInterrupt

    subscriptions = [sdk.on_locations(breaks), sdk.on_locations(waits), sdk.on_locations(breaks)]
    subscriptions.append(sdk.on_locations(lambda fixes: told.append((fixes, threading.get_ident()))))
    deliver(sdk, 0)
    assert told[0][0] == (fix_at(0),) and told[0][1] != threading.get_ident()
    assert refused == [tarvo.InCallbackError] * 3 + [tarvo.WrongThreadError]
    assert unraisable == [(KeyboardInterrupt, breaks)] * 2
    with subscriptions.pop():
        deliver(sdk, 1)
    for subscription in subscriptions:
        subscription.cancel()
        subscription.cancel()
    deliver(sdk, 2)
    assert len(told) == 2 and len(unraisable) == 4


class Receiver:
    def __init__(self, sdk: tarvo.Sdk) -> None:
        self.sdk = sdk
        self.calls: list[Any] = []

    def start(self, accuracy: float | None, /) -> None:
        self.calls.append("start")
        self.sdk.deliver(fix_at(0))

    def stop(self) -> None:
        self.calls.append("stop")


def test_a_receiver_is_switched_on_and_off(sdk: tarvo.Sdk) -> None:
    first, second = Receiver(sdk), Receiver(sdk)
    sdk.set_receiver(first)
    assert sdk.wait_until_idle(60) and first.calls[0] == "start" and "stop" not in first.calls
    assert sdk.current_location == fix_at(0)
    sdk.set_receiver(second)
    assert sdk.wait_until_idle(60) and first.calls[-1] == "stop" and second.calls[0] == "start"
    sdk.activate(tarvo.Mode.DEACTIVATED)
    assert sdk.wait_until_idle(60) and second.calls[-1] == "stop"


def test_the_main_queue_moves_where_it_is_run(tmp_path: Any) -> None:
    with tarvo.Sdk(tmp_path) as sdk:
        asked: list[tarvo.PermissionRequest] = []
        shown: list[tarvo.Alert] = []
        answers: list[str] = []

        def prompt(request: tarvo.PermissionRequest) -> None:
            asked.append(request)
            sdk.permission = tarvo.Permission.DENIED

        def show(alert: tarvo.Alert) -> bool:
            shown.append(alert)
            return True

        sdk.permission = tarvo.Permission.NOT_DETERMINED
        sdk.set_prompt(prompt)
        sdk.on_alert(show)
        sdk.activate(tarvo.Mode.LOCAL_BACKGROUND)
        sdk.probe(lambda: answers.append("probe"))
        assert sdk.wait_until_idle(60)
        assert asked == [tarvo.PermissionRequest.ALWAYS] and sdk.permission == tarvo.Permission.DENIED
        assert answers == ["probe"]
        sdk.probe(lambda: answers.append("again"))
        for _ in range(1000):
            if len(answers) < 2:
                sdk.run_for(0.05)
        assert sdk.run_pending() == 0 and not sdk.background_events("another", lambda: None)
        sdk.activate(tarvo.Mode.LOCAL_BACKGROUND)  # denied: an alert leads to the settings
        assert sdk.wait_until_idle(60) and shown[-1].title and len(shown[-1].actions) == 2
        shown[-1].choose(0)
        with pytest.raises(tarvo.AlreadyError):
            shown[-1].choose(0)


def test_nothing_is_kept_that_was_given_back(sdk: tarvo.Sdk) -> None:
    sdk.set_receiver(Receiver(sdk))
    deliver(sdk, 1)
    history = sdk.history()
    assert history and next(iter(history))
    sdk.probe(lambda: None)
    sdk.close()
    del history
    gc.collect()
    assert lib.tarvo_live_objects() == 1, "the log alone"
    assert not _callbacks._held


def test_a_callback_may_close_the_sdk(sdk: tarvo.Sdk) -> None:
    closed = threading.Event()
    sdk.on_locations(lambda fixes: sdk.close())
    sdk.on_locations(lambda fixes: closed.set())
    sdk.deliver(fix_at(0))
    assert closed.wait(60)
    with tarvo.Sdk(sdk.home) as other:
        assert other.wait_until_idle(60) and other.mode == tarvo.Mode.DEACTIVATED


def test_an_interrupted_close_ends_collection(sdk: tarvo.Sdk, monkeypatch: pytest.MonkeyPatch) -> None:
    def interrupted(seconds: float) -> bool:
        raise KeyboardInterrupt

    monkeypatch.setattr(sdk, "wait_until_idle", interrupted)
    with pytest.raises(KeyboardInterrupt):
        sdk.close()
    assert lib.tarvo_active_mode() == tarvo.Mode.DEACTIVATED


def test_a_forked_child_is_refused(sdk: tarvo.Sdk) -> None:
    def is_refused(call: Any) -> bool:
        try:
            call()
        except tarvo.ForkedError:
            return True
        return False

    loop = asyncio.new_event_loop()
    sdk.pump_in(loop)
    sdk.on_locations(lambda fixes: None)
    deliver(sdk, 0)
    child = os.fork()
    if child == 0:
        calls = [lambda: tarvo.Sdk(sdk.home), lambda: sdk.deliver(fix_at(1)), sdk.history, sdk.run_pending]
        status = 1
        try:
            refused = all(map(is_refused, calls))
            sdk.close()
            _callbacks._end()
            status = 0 if refused else 2
        finally:
            os._exit(status)
    assert os.waitpid(child, 0)[1] == 0
    deliver(sdk, 1)
    assert sdk.current_location == fix_at(1)
    sdk.close()
    loop.close()


ENDS = {
    "returns": (0, ""),
    "exits": (3, "import sys; sys.exit(3)"),
    "raises": (1, "raise ValueError"),
    "closes": (0, "sdk.close()"),
    "after a fork": (0, "import os; child = os.fork()\nif child: assert os.waitpid(child, 0)[1] == 0"),
    "in a thread": (0, "threading.Thread(target=lambda: time.sleep(0.05)).start()"),
    "with a waiting thread": (0, "threading.Thread(target=sdk.flush, args=(0.2,), daemon=True).start()"),
    "interrupted": (-signal.SIGINT, "import os, signal; os.kill(os.getpid(), signal.SIGINT); time.sleep(9)"),
}

FLOOD = """
import logging, sys, threading, time, tarvo
logger = logging.getLogger("sdk"); logger.setLevel(logging.DEBUG); logger.addHandler(logging.NullHandler())
sdk = tarvo.Sdk(sys.argv[1], log=logger)
came = threading.Event()
class Receiver:
    def start(self, accuracy): threading.Thread(target=flood, daemon=True).start()
    def stop(self): pass
def flood():
    for step in range(10**6): sdk.deliver([tarvo.Fix(48 + step % 7000 * 0.001, 11, 5) for _ in range(20)])
def on_locations(fixes):
    came.set()
    sum(range(20000))
sdk.on_locations(on_locations)
sdk.set_receiver(Receiver())
sdk.activate(tarvo.Mode.LOCAL_BACKGROUND)
assert came.wait(60)
"""


@pytest.mark.parametrize("end", ENDS)
def test_the_interpreter_ends_in_the_midst_of_callbacks(run: Run, end: str) -> None:
    status, statements = ENDS[end]
    for attempt in range(2):
        ended = run("-c", FLOOD + statements, f"home-{attempt}")
        assert ended.returncode == status, ended.stderr
        assert "Fatal" not in ended.stderr and "terminate" not in ended.stderr, ended.stderr
