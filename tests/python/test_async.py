"""Fixes and events in asyncio, and the log."""

import asyncio
import logging
import pathlib
import sys
import threading

import pytest
from conftest import START, Run, fix_at

import tarvo


def test_fixes_come_in_a_loop(tmp_path: pathlib.Path) -> None:
    async def collect() -> list[tarvo.Fix]:
        tarvo.set_manual_clock(START)
        async with tarvo.Sdk(tmp_path) as sdk:
            answered = asyncio.Event()
            sdk.probe(answered.set)
            await asyncio.wait_for(answered.wait(), 60)  # the loop runs the main queue
            sdk.activate(tarvo.Mode.LOCAL_BACKGROUND)
            told = []
            async with sdk.fixes() as fixes:
                await asyncio.to_thread(sdk.deliver, [fix_at(0), fix_at(1)])
                async for fix in fixes:
                    told.append(fix)
                    if len(told) == 2:
                        sdk.deliver(fix_at(2))
                    if len(told) == 3:
                        break
            open_stream = sdk.fixes()
            waiting = asyncio.create_task(anext(open_stream, None))
            await asyncio.sleep(0)
        assert await asyncio.wait_for(waiting, 60) is None  # it ends with its Sdk
        return told

    assert asyncio.run(collect()) == [fix_at(0), fix_at(1), fix_at(2)]


def test_who_does_not_keep_up_loses_the_oldest(sdk: tarvo.Sdk) -> None:
    async def late() -> None:
        fixes, events = sdk.fixes(limit=3), sdk.events()
        for step in range(10):
            sdk.deliver(fix_at(step))
        assert await asyncio.to_thread(sdk.wait_until_idle, 60)
        assert fixes.dropped == 7
        assert [await anext(fixes) for _ in range(3)] == [fix_at(step) for step in (7, 8, 9)]
        await fixes.aclose()
        await events.aclose()
        with pytest.raises(StopAsyncIteration):
            await anext(fixes)
        assert sdk.fixes().dropped == 0  # left open: its loop ends before the next fix

    asyncio.run(late())
    sdk.deliver(fix_at(20))
    assert sdk.wait_until_idle(60)
    asyncio.run(asyncio.sleep(0))  # another loop
    assert sdk.current_location == fix_at(20) and all(stream.has_ended for stream in sdk._streams)


class Lines(logging.Handler):
    def __init__(self, stalls: threading.Event) -> None:
        super().__init__()
        self.records: list[logging.LogRecord] = []
        self.stalls = stalls
        self.dropped = threading.Event()

    def emit(self, record: logging.LogRecord) -> None:
        self.stalls.wait(60)
        self.records.append(record)
        if record.levelno == logging.WARNING:
            self.dropped.set()
        if len(self.records) == 1:
            raise SystemExit("a handler that breaks")


def test_a_logger_gets_the_messages_and_holds_nothing_up(
    tmp_path: pathlib.Path, capfd: pytest.CaptureFixture[str], monkeypatch: pytest.MonkeyPatch
) -> None:
    stalls = threading.Event()
    unraisable: list[str] = []
    monkeypatch.setattr(sys, "unraisablehook", lambda args: unraisable.append(str(args.exc_value)))
    lines, logger = Lines(stalls), logging.getLogger("unit.sdk")
    logger.setLevel(logging.DEBUG)
    logger.addHandler(lines)
    logger.propagate = False
    with tarvo.Sdk(tmp_path, log=logger) as sdk:
        sdk.activate(tarvo.Mode.LOCAL_BACKGROUND)
        for step in range(3000):
            sdk.deliver(fix_at(step))
        assert sdk.wait_until_idle(60), "nothing waits for the handler"
        stalls.set()
        assert lines.dropped.wait(60)
    texts = [record.getMessage() for record in lines.records]
    assert any("48.0" in text for text in texts) and any("were dropped" in text for text in texts)
    assert {record.levelno for record in lines.records} == {logging.DEBUG, logging.WARNING}
    assert unraisable == ["a handler that breaks"] and capfd.readouterr().err == ""


def test_without_a_logger_nobody_gets_them(run: Run) -> None:
    ended = run("-c", "import tarvo; sdk = tarvo.Sdk('home'); sdk.activate(4); sdk.wait_until_idle(60)")
    assert (ended.returncode, ended.stdout, ended.stderr) == (0, "", "")
