"""A sandbox, and an SDK that talks to it. Every test runs in a process of its own."""

import os
import pathlib
import subprocess
import sys
from collections.abc import Callable, Iterator
from datetime import datetime, timezone

import pytest

import tarvo

SOURCE = pathlib.Path(os.environ["TARVO_SOURCE"])
PROGRAM = os.environ["TARVO_PROGRAM"]
START = datetime(2024, 5, 14, 7, 30, tzinfo=timezone.utc)


@pytest.fixture
def backend(tmp_path: pathlib.Path) -> Iterator[str]:
    """Its address. It answers with the demo's trips, places and prediction."""
    command = [PROGRAM, "sandbox", "--port=0", f"--data={tmp_path}/data", f"--backend={SOURCE}/apps/demo/backend.json"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as sandbox:
        assert sandbox.stdout
        yield sandbox.stdout.readline().split()[1]
        sandbox.terminate()


@pytest.fixture
def sdk(tmp_path: pathlib.Path) -> Iterator[tarvo.Sdk]:
    """Without a backend, collecting, at START on a clock that is moved."""
    tarvo.set_manual_clock(START)
    with tarvo.Sdk(tmp_path / "home") as sdk:
        sdk.activate(tarvo.Mode.LOCAL_BACKGROUND)
        yield sdk


def fix_at(step: int) -> tarvo.Fix:
    """Each is far enough from the one before to be stored."""
    return tarvo.Fix(48 + step * 0.001, 11.5, 5.0, time=START)


Run = Callable[..., "subprocess.CompletedProcess[str]"]


@pytest.fixture
def run(tmp_path: pathlib.Path) -> Run:
    """Runs a program of Python in a new process."""

    def program(*arguments: object) -> "subprocess.CompletedProcess[str]":
        command = [sys.executable, *map(str, arguments)]
        return subprocess.run(command, capture_output=True, text=True, timeout=400, cwd=tmp_path)

    return program
