#!/usr/bin/python3
"""Feeds the recording of a receiver to the SDK, uploads every position, and prints the history as GeoJSON.

usage: tracker.py HOME BACKEND RECORDING [CLIENT-ID API-KEY API-SECRET]

The recording has lines of NMEA 0183 (RMC sentences; others are passed over) or of CSV:
  time,latitude,longitude[,accuracy[,speed[,course]]]      seconds since 1970, degrees, metres, m/s, degrees
The recording's times drive the SDK's clock, so that an hour takes moments. A program with a receiver at hand leaves the
clock alone and calls Sdk.deliver as fixes come.
"""

import functools
import itertools
import operator
import sys
from collections.abc import Iterator
from datetime import datetime, timedelta, timezone

import tarvo


def fix_of_rmc(sentence: str) -> tarvo.Fix | None:
    """$GPRMC,time,A,latitude,N,longitude,E,knots,course,date,…"""
    body, _, checksum = sentence[1:].partition("*")
    fields = body.split(",")
    if fields[0][2:] != "RMC" or len(fields) < 10 or fields[2] != "A":
        return None
    if checksum and int(checksum[:2], 16) != functools.reduce(operator.xor, body.encode()):
        return None

    def degrees(text: str, hemisphere: str) -> float:  # 4807.038 is 48 degrees and 7.038 minutes
        value = float(text)
        angle = value // 100 + value % 100 / 60
        return -angle if hemisphere in "SW" else angle

    second = float(fields[1][4:])
    time = datetime.strptime(fields[9] + fields[1][:4], "%d%m%y%H%M").replace(tzinfo=timezone.utc)
    return tarvo.Fix(
        degrees(fields[3], fields[4]),
        degrees(fields[5], fields[6]),
        5.0,
        time=time + timedelta(seconds=second),
        speed=float(fields[7]) * 1852 / 3600 if fields[7] else None,
        course=float(fields[8]) if fields[8] else None,
    )


def fix_of_csv(line: str) -> tarvo.Fix | None:
    numbers = [float(field) for field in line.split(",")[:6]]
    if len(numbers) < 3:
        return None
    return tarvo.Fix(
        numbers[1],
        numbers[2],
        numbers[3] if len(numbers) > 3 else 5.0,
        time=datetime.fromtimestamp(numbers[0], timezone.utc),
        speed=numbers[4] if len(numbers) > 4 else None,
        course=numbers[5] if len(numbers) > 5 else None,
    )


def fixes_in(path: str) -> Iterator[tarvo.Fix]:
    with open(path, encoding="ascii", errors="replace") as recording:
        for line in recording:
            try:
                fix = fix_of_rmc(line.strip()) if line.startswith("$") else fix_of_csv(line)
            except ValueError:  # a heading, or a damaged line
                continue
            if fix is not None:
                yield fix


def main() -> int:
    if len(sys.argv) not in (4, 7):
        print(__doc__, file=sys.stderr)
        return 2
    home, backend, recording = sys.argv[1:4]
    client, key, secret = sys.argv[4:] or ("demo", "demo-key", "demo-secret")
    fixes = fixes_in(recording)
    first = next(fixes, None)
    if first is None:
        print("tracker: no fix in the recording", file=sys.stderr)
        return 1

    fed = told = 0

    def on_locations(fixes: tuple[tarvo.Fix, ...]) -> None:  # on one thread of the SDK
        nonlocal told
        told += len(fixes)

    tarvo.set_manual_clock(first.time)
    with tarvo.Sdk(
        home, server=backend, client_id=client, api_key=key, api_secret=secret, bundle_id="com.example.tracker"
    ) as sdk:
        sdk.on_locations(on_locations)
        sdk.activate(tarvo.Mode.BACKEND_BACKGROUND)
        for fix in itertools.chain([first], fixes):
            tarvo.move_clock(fix.time)
            sdk.deliver(fix)
            sdk.wait_until_idle(60)
            fed += 1
        # A new device's channel is free 180 s after its first try; then everything leaves.
        tarvo.move_clock(tarvo.now() + timedelta(seconds=180))
        ended = sdk.flush(30)
        if not ended:
            print(f"tracker: not everything was uploaded ({ended.name})", file=sys.stderr)
            return 1
        history = sdk.history()
        if history is not None:
            print(history.geojson_text())
    print(f"tracker: {fed} fixes fed, told of {told}", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
