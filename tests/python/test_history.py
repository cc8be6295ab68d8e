"""What the SDK holds, and what the backend tells."""

import dataclasses
import json
import os
import pathlib
import subprocess
import threading
import time
from datetime import timedelta

import pytest
from conftest import PROGRAM, SOURCE, START, Run, fix_at

import tarvo


def test_a_history_is_read_as_it_is_iterated_over(sdk: tarvo.Sdk, tmp_path: pathlib.Path) -> None:
    assert sdk.history() is None and sdk.current_location is None and sdk.next_trip is None
    for block in range(6):  # together more than a cursor holds
        tarvo.move_clock(START + timedelta(seconds=block))
        steps = range(block * 100, block * 100 + 100)
        sdk.deliver(dataclasses.replace(fix_at(step), speed=float(step)) for step in steps)
        assert sdk.wait_until_idle(60)
    history = sdk.history()
    assert history and len(history) == 600 and not history.trips
    early, late = iter(history), list(history)
    assert [one.speed for one in late] == [float(step) for step in range(600)]
    assert next(early) == late[0] and next(early) == late[1]
    assert late[0].fix_time == START and late[0].floor is None and late[0].unsent is True
    assert history.first == (48, 11.5)
    assert history.bounds == tarvo.Bounds(48, 11.5, fix_at(599).latitude, 11.5)
    assert history.geojson("MultiPoint")["features"][0]["geometry"]["type"] == "MultiPoint"
    assert history.__geo_interface__ == json.loads(history.geojson_text())
    middle = sdk.history(START + timedelta(seconds=2), START + timedelta(seconds=4))
    assert middle and [one.speed for one in middle] == [float(step) for step in range(200, 500)]
    sdk.close()
    assert list(history) == late  # it outlives its Sdk
    command = [PROGRAM, "history", "--home", os.fspath(tmp_path / "home")]
    assert subprocess.run(command, capture_output=True, text=True).stdout == history.geojson_text() + "\n"


def test_a_store_that_cannot_be_read_is_no_end(sdk: tarvo.Sdk, tmp_path: pathlib.Path) -> None:
    sdk.deliver(fix_at(step) for step in range(300))
    assert sdk.wait_until_idle(60)
    history = sdk.history()
    assert history and len(history) == 300
    for file in (tmp_path / "home/Documents").glob("*.sqlite*"):
        file.unlink()
    with pytest.raises(tarvo.StoreError):
        list(history)
    with pytest.raises(tarvo.StoreError):
        history.geojson()


def test_trips_places_and_predictions_arrive(backend: str, tmp_path: pathlib.Path) -> None:
    tarvo.set_manual_clock(START)
    trips: list[tarvo.History] = []
    predictions: list[tarvo.Trip] = []
    host = dict(client_id="demo", api_key="demo-key", api_secret="demo-secret", bundle_id="a.b")
    with tarvo.Sdk(tmp_path / "home", server=backend, **host) as sdk:  # type: ignore[arg-type]
        sdk.on_route_matched(trips.append)
        sdk.on_prediction(predictions.append)
        with pytest.raises(tarvo.TooEarlyError):
            sdk.activate(tarvo.Mode.BACKEND_GEOPROFILE)
            sdk.push_received({"messageFrom": "tarvo"})
        sdk.deliver(fix_at(0))
        assert sdk.wait_until_idle(60)
        assert sdk.push_received({"messageFrom": "tarvo"}) and not sdk.push_received({"messageFrom": "else"})
        sdk.request_route_match()
        sdk.request_prediction_update()
        tarvo.move_clock(START + timedelta(seconds=200))
        sdk.deliver(fix_at(step) for step in range(1, 4))
        assert sdk.flush(60) and sdk.wait_until_idle(60)
        demo = json.loads((SOURCE / "apps/demo/backend.json").read_text())
        history = sdk.history(format=tarvo.Format.EXTRAPOLATED)
        assert history is not None and len(history) == 0 and history and history.geojson()["features"] == []
        assert [trip.id for trip in history.trips] == [trip["pasttrip_id"] for trip in demo["trips"]]
        assert history.trips[-1].route == demo["trips"][-1]["route"] and len(history.trips[:2]) == 2
        with pytest.raises(IndexError):
            history.trips[3]
        trip = sdk.next_trip
        assert trip and (trip.arrival_name, trip.route) == ("Home", demo["prediction"]["route"])
        assert trip.start_time and trip.start_time.isoformat() == "2024-05-14T16:30:00+00:00"
        assert trip.locations and len(trip.locations) == 10 and trip.start == trip.locations[0]
        assert sdk.points_of_interest()[0]["type"] and trips[-1].trips and predictions[-1].id == trip.id
        sdk.last_prediction = None
        assert sdk.next_trip and sdk.next_trip.destination is None
        sdk.last_prediction = trip
        assert sdk.next_trip.geojson() == trip.geojson()
        status = sdk.sync_status
        assert status.unsent == status.awaiting == 0 < status.acknowledged == status.stored == sdk.health()["stored"]
        assert sdk.user_uuid and sdk.erase_everything() and sdk.sync_status.stored == 0


def test_a_flush_lets_other_threads_run(backend: str, tmp_path: pathlib.Path) -> None:
    tarvo.set_manual_clock(START)
    host = dict(client_id="demo", api_key="demo-key", api_secret="demo-secret", bundle_id="a.b")
    with tarvo.Sdk(tmp_path / "home", server=backend, **host) as sdk:  # type: ignore[arg-type]
        sdk.activate(tarvo.Mode.BACKEND_BACKGROUND)
        sdk.deliver(fix_at(0))  # a new device's channel is not free on a clock that stands still
        turns: list[float] = []
        ended = threading.Event()

        def turn() -> None:
            while not ended.wait(0.01):
                turns.append(time.monotonic())

        thread = threading.Thread(target=turn)
        thread.start()
        since = time.monotonic()
        result = sdk.flush(1)
        until = time.monotonic()
        ended.set()
        thread.join()
        assert result == tarvo.FlushResult.TIME_IS_UP and not result and until - since > 0.9
        assert sum(since < turn < until for turn in turns) > 3


@pytest.mark.parametrize("kind", ["nmea", "csv"])
def test_the_tracker_uploads_every_position(backend: str, tmp_path: pathlib.Path, run: Run, kind: str) -> None:
    recording, home = tmp_path / "trip", os.fspath(tmp_path / "home")
    way = "--from 48.1,11.5 --to 48.12,11.53 --profile bike --seed 3 --rate 0.5 --format nmea --output".split()
    subprocess.run([PROGRAM, "simulate", *way, os.fspath(recording)], check=True)
    if kind == "csv":
        from tracker import fixes_in

        lines = [f"{fix.time.timestamp()},{fix.latitude},{fix.longitude}\n" for fix in fixes_in(os.fspath(recording))]
        recording.write_text("time,latitude,longitude\n" + "".join(lines))
    ended = run(SOURCE / "examples/python/tracker.py", home, backend, recording)
    history = subprocess.run([PROGRAM, "history", "--home", home], capture_output=True, text=True).stdout
    status = subprocess.run([PROGRAM, "status", "--json", "--home", home], capture_output=True, text=True).stdout
    counts = json.loads(status)
    assert ended.returncode == 0 and ended.stderr.startswith("tracker: 575 fixes fed, told of 1")
    assert ended.stderr.count("\n") == 1 and ended.stdout == history and len(history) > 3000
    assert counts["stored"] == counts["acknowledged"] > 150
    read = run(SOURCE / "examples/python/plot_history.py", home, tmp_path / "track.csv", "--since", "2024-05-14")
    assert read.returncode == 0 and len((tmp_path / "track.csv").read_text().splitlines()) == counts["stored"] + 1
    plot = [SOURCE / "examples/python/plot_history.py", tmp_path / "new", tmp_path / "t.geojson"]
    assert run(*plot, "--recording", recording).returncode == 0
    assert "LineString" in (tmp_path / "t.geojson").read_text()
