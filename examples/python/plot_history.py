#!/usr/bin/python3
"""Shows the track and the speed that a home's history holds.

usage: plot_history.py HOME OUTPUT [--since TIME] [--until TIME] [--recording FILE]

OUTPUT ends with .geojson, .csv, or .png, .svg or .pdf, which take matplotlib (GeoJSON is written where it is missing).
TIME is ISO 8601, in UTC unless it has a zone. A home may be read while its unit runs; nothing is written to it. With
--recording a receiver's recording (tracker.py has its format) is first replayed into HOME, which then is a new one;
nothing is uploaded.
"""

import argparse
import csv
import importlib.util
import json
import pathlib
import sys
from collections.abc import Iterable
from datetime import datetime, timezone

import tarvo
from tracker import fixes_in


def moment(text: str) -> datetime:
    date = datetime.fromisoformat(text)
    return date if date.tzinfo else date.replace(tzinfo=timezone.utc)


def replay(sdk: tarvo.Sdk, fixes: Iterable[tarvo.Fix]) -> None:
    """Collects as a unit on the road does."""
    sdk.activate(tarvo.Mode.LOCAL_BACKGROUND)
    for fix in fixes:
        tarvo.move_clock(fix.time)
        sdk.deliver(fix)
        sdk.wait_until_idle(60)


def write_csv(history: tarvo.History, output: pathlib.Path) -> None:
    with output.open("w", newline="", encoding="utf-8") as file:
        rows = csv.writer(file)
        rows.writerow(["time", "latitude", "longitude", "accuracy", "speed"])
        for one in history:  # read from the store in pieces: a year of them takes no memory
            time = one.fix_time.isoformat() if one.fix_time else ""
            rows.writerow([time, one.latitude, one.longitude, one.horizontal_accuracy, one.speed])


def plot(history: tarvo.History, output: pathlib.Path) -> None:
    from matplotlib.figure import Figure

    there = [one for one in history if one.latitude is not None and one.longitude is not None and one.fix_time]
    known = [one for one in there if one.speed is not None and one.speed >= 0]
    figure = Figure(figsize=(12, 5), layout="constrained")
    track, speed = figure.subplots(1, 2)
    track.plot([one.longitude for one in there], [one.latitude for one in there], marker=".", linewidth=1)
    track.set(title=f"{len(there)} positions", xlabel="longitude", ylabel="latitude")
    track.ticklabel_format(useOffset=False)
    speed.plot([one.fix_time for one in known], [3.6 * (one.speed or 0) for one in known], linewidth=1)
    speed.set(title="speed", xlabel="time (UTC)", ylabel="km/h")
    speed.tick_params(axis="x", rotation=30)
    figure.savefig(output)


def main() -> int:
    parser = argparse.ArgumentParser(description=(__doc__ or "").partition("\n")[0])
    parser.add_argument("home")
    parser.add_argument("output", type=pathlib.Path)
    parser.add_argument("--since", type=moment)
    parser.add_argument("--until", type=moment)
    parser.add_argument("--recording")
    arguments = parser.parse_args()

    fixes = list(fixes_in(arguments.recording)) if arguments.recording else []
    if fixes:
        tarvo.set_manual_clock(fixes[0].time)
    with tarvo.Sdk(arguments.home) as sdk:
        if fixes:
            replay(sdk, fixes)
        else:
            sdk.read_in_mode(tarvo.Mode.LOCAL_BACKGROUND)
        history = sdk.history(arguments.since, arguments.until)
        if history is None:
            print("plot_history: nothing there", file=sys.stderr)
            return 1
        output: pathlib.Path = arguments.output
        if output.suffix == ".csv":
            write_csv(history, output)
        elif output.suffix == ".geojson":
            output.write_text(json.dumps(history.geojson()), encoding="utf-8")
        elif importlib.util.find_spec("matplotlib"):
            plot(history, output)
        else:
            output = output.with_suffix(".geojson")
            output.write_text(json.dumps(history.geojson()), encoding="utf-8")
        print(f"plot_history: {len(history)} positions in {history.bounds}, in {output}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
