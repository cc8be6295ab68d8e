"""Histories and predictions: immutable, and free to be used by several threads at once."""

import json
import math
from collections.abc import Iterator, Sequence
from datetime import datetime
from typing import Any, Literal, TypeVar, overload

from ._errors import StoreError, check, refuse
from ._native import ffi, lib
from ._records import Bounds, Fix, Geometry, PastTrip, Position, fix_of
from ._values import date_of, record, string, string_or_none, taken_json, taken_text

T = TypeVar("T")

_ABSENT = -200.0

_LATITUDE: int = lib.TARVO_HAS_LATITUDE
_LONGITUDE: int = lib.TARVO_HAS_LONGITUDE
_ALTITUDE: int = lib.TARVO_HAS_ALTITUDE
_HORIZONTAL_ACCURACY: int = lib.TARVO_HAS_HORIZONTAL_ACCURACY
_VERTICAL_ACCURACY: int = lib.TARVO_HAS_VERTICAL_ACCURACY
_COURSE: int = lib.TARVO_HAS_COURSE
_SPEED: int = lib.TARVO_HAS_SPEED
_FIX_TIME: int = lib.TARVO_HAS_FIX_TIME
_STORED_TIME: int = lib.TARVO_HAS_STORED_TIME
_FLOOR: int = lib.TARVO_HAS_FLOOR
_INDEX: int = lib.TARVO_HAS_INDEX
_UNSENT: int = lib.TARVO_HAS_UNSENT
_SENT_WITHOUT_ACK: int = lib.TARVO_HAS_SENT_WITHOUT_ACK


class History:
    """Positions, or past trips. Positions stay in the store until they are iterated over, 256 at a time, so a year of
    them takes no memory; it may be iterated over again, and after its Sdk was closed."""

    def __init__(self, owned: Any) -> None:
        self._handle = ffi.gc(owned, lib.tarvo_history_unref)

    def __len__(self) -> int:
        """Of positions; len(history.trips) of past trips."""
        return int(lib.tarvo_history_positions(self._handle))

    def __bool__(self) -> bool:
        return len(self) > 0 or len(self.trips) > 0

    def __iter__(self) -> Iterator[Position]:
        """StoreError when the store cannot be read."""
        out = ffi.new("tarvo_cursor **")
        check(lib.tarvo_history_read(self._handle, out))
        return _positions(ffi.gc(out[0], lib.tarvo_cursor_free))

    @property
    def trips(self) -> "Trips":
        """The past trips, by ascending identifier; none in a history of positions."""
        return Trips(self._handle)

    @property
    def bounds(self) -> Bounds | None:
        """Of all past trips, or else of all positions; None when there is no point. StoreError when the positions
        cannot be read."""
        out = ffi.new("tarvo_bounds *")
        if not check(lib.tarvo_history_bounds(self._handle, out)):
            return self._nothing(None)
        return None if out.south == _ABSENT else Bounds(out.south, out.west, out.north, out.east)

    @property
    def first(self) -> tuple[float, float] | None:
        """Latitude and longitude of the first position."""
        latitude, longitude = ffi.new("double *"), ffi.new("double *")
        check(lib.tarvo_history_first(self._handle, latitude, longitude))
        return (latitude[0], longitude[0]) if len(self) else None

    def _nothing(self, empty: T) -> T:
        """For an answer that is absent: without positions there is nothing to tell, else they could not be read."""
        if len(self):
            raise StoreError("the store cannot be read now, or no position has coordinates")
        return empty

    def geojson_text(self, geometry: Geometry | Literal["LineString", "MultiPoint"] = Geometry.LINESTRING) -> str:
        """A FeatureCollection of the positions, byte for byte as the SDK and `tarvo history` write it; without features
        where there is no position. StoreError when the store cannot be read, or no position has coordinates."""
        if isinstance(geometry, str):
            refuse(geometry not in ("LineString", "MultiPoint"), "a geometry other than LineString and MultiPoint")
            geometry = Geometry.LINESTRING if geometry == "LineString" else Geometry.MULTIPOINT
        out, length = ffi.new("char **"), ffi.new("size_t *")
        if not check(lib.tarvo_history_geojson(self._handle, geometry, out, length)):
            return self._nothing('{"type":"FeatureCollection","features":[]}')
        try:
            return str(ffi.buffer(out[0], length[0])[:].decode())
        finally:
            lib.tarvo_free(out[0])

    def geojson(self, geometry: Geometry | Literal["LineString", "MultiPoint"] = Geometry.LINESTRING) -> dict[str, Any]:
        """The same as a dictionary."""
        content: dict[str, Any] = json.loads(self.geojson_text(geometry))
        return content

    @property
    def __geo_interface__(self) -> dict[str, Any]:
        """For shapely, geopandas and whatever else knows this protocol."""
        return self.geojson()

    def __repr__(self) -> str:
        return f"<tarvo.History of {len(self)} positions, {len(self.trips)} trips>"


def _positions(cursor: Any) -> Iterator[Position]:
    out = record("tarvo_position")
    step = lib.tarvo_cursor_next
    while (result := step(cursor, out)) == lib.TARVO_OK:
        has = out.has
        yield Position(
            out.latitude if has & _LATITUDE else None,
            out.longitude if has & _LONGITUDE else None,
            out.altitude if has & _ALTITUDE else None,
            out.horizontal_accuracy if has & _HORIZONTAL_ACCURACY else None,
            out.vertical_accuracy if has & _VERTICAL_ACCURACY else None,
            out.course if has & _COURSE else None,
            out.speed if has & _SPEED else None,
            date_of(out.fix_time) if has & _FIX_TIME else None,
            date_of(out.stored_time) if has & _STORED_TIME else None,
            out.floor if has & _FLOOR else None,
            out.index if has & _INDEX else None,
            bool(out.unsent) if has & _UNSENT else None,
            bool(out.sent_without_ack) if has & _SENT_WITHOUT_ACK else None,
            string_or_none(out.service_action),
            string_or_none(out.localisation_method),
            string_or_none(out.user_action),
            string_or_none(out.app_name),
            string_or_none(out.app_action),
            string_or_none(out.identifier_for_vendor),
        )
    if result == lib.TARVO_UNFINISHED:
        raise StoreError("the store cannot be read now; iterate again")
    check(result)


class Trips(Sequence[PastTrip]):
    """The past trips of a history."""

    def __init__(self, history: Any) -> None:
        self._history = history

    def __len__(self) -> int:
        return int(lib.tarvo_history_trips(self._history))

    @overload
    def __getitem__(self, index: int) -> PastTrip: ...

    @overload
    def __getitem__(self, index: slice) -> list[PastTrip]: ...

    def __getitem__(self, index: int | slice) -> PastTrip | list[PastTrip]:
        if isinstance(index, slice):
            return [self[i] for i in range(*index.indices(len(self)))]
        out = record("tarvo_past_trip")
        place = index + len(self) if index < 0 else index
        if place < 0 or not check(lib.tarvo_history_trip(self._history, place, out)):
            raise IndexError("there is no such trip")
        has = out.has
        return PastTrip(
            out.id if has & lib.TARVO_TRIP_HAS_ID else None,
            out.departure_latitude if has & lib.TARVO_TRIP_HAS_DEPARTURE_LATITUDE else None,
            out.departure_longitude if has & lib.TARVO_TRIP_HAS_DEPARTURE_LONGITUDE else None,
            out.arrival_latitude if has & lib.TARVO_TRIP_HAS_ARRIVAL_LATITUDE else None,
            out.arrival_longitude if has & lib.TARVO_TRIP_HAS_ARRIVAL_LONGITUDE else None,
            date_of(out.start_time) if has & lib.TARVO_TRIP_HAS_START_TIME else None,
            date_of(out.arrival_time) if has & lib.TARVO_TRIP_HAS_ARRIVAL_TIME else None,
            None if out.route == ffi.NULL else json.loads(string(out.route)),
        )


class Trip:
    """A prediction."""

    def __init__(self, owned: Any) -> None:
        self._handle = ffi.gc(owned, lib.tarvo_trip_unref)
        info = record("tarvo_trip_info")
        check(lib.tarvo_trip_get(self._handle, info))
        self.id: int = info.id
        self.probability: float = info.probability
        self.duration: float = info.duration
        """As the backend sent it."""
        self.start_name: str = string(info.start_name)
        self.arrival_name: str = string(info.arrival_name)
        self.start_text: str = string(info.start_time)
        self.arrival_text: str = string(info.arrival_time)
        """As the backend sent them."""
        self.destination: tuple[float, float] | None = (
            None if info.destination_latitude == _ABSENT else (info.destination_latitude, info.destination_longitude)
        )

    @property
    def start_time(self) -> datetime | None:
        """None also for a text that is no date."""
        return _date_in(self.start_text)

    @property
    def arrival_time(self) -> datetime | None:
        """The same of the arrival."""
        return _date_in(self.arrival_text)

    @property
    def local_start_time(self) -> str | None:
        """The start in the zone of the device, as a text of the backend's form; None where it cannot be read."""
        return taken_text(lib.tarvo_trip_start_time, self._handle)

    @property
    def route(self) -> dict[str, Any] | None:
        """The predicted route, as the backend sent it."""
        content: dict[str, Any] | None = taken_json(lib.tarvo_trip_route, self._handle)
        return content

    def geojson(self) -> dict[str, Any] | None:
        """GeoJSON of the next destination."""
        content: dict[str, Any] | None = taken_json(lib.tarvo_trip_geojson, self._handle)
        return content

    @property
    def locations(self) -> tuple[Fix, ...] | None:
        """The points of the route, as fixes of now; None without a route."""
        count = ffi.new("size_t *")
        if not check(lib.tarvo_trip_locations(self._handle, ffi.NULL, 0, count)):
            return None
        fixes = ffi.new("tarvo_fix[]", count[0])
        check(lib.tarvo_trip_locations(self._handle, fixes, count[0], count))
        return tuple(fix_of(fix) for fix in fixes)

    @property
    def start(self) -> Fix | None:
        """The first point of the route, as a fix of now; None without one."""
        return self._fix(lib.tarvo_trip_start)

    @property
    def destination_fix(self) -> Fix | None:
        """The destination, as a fix of now; None while it is unset."""
        return self._fix(lib.tarvo_trip_destination)

    def _fix(self, function: Any) -> Fix | None:
        out = ffi.new("tarvo_fix *")
        found = check(function(self._handle, out)) and out.latitude != _ABSENT and not math.isnan(out.latitude)
        return fix_of(out) if found else None

    def __repr__(self) -> str:
        return f"<tarvo.Trip {self.id} to {self.arrival_name!r}, probability {self.probability}>"


def _date_in(text: str) -> datetime | None:
    try:
        return datetime.strptime(text, "%Y-%m-%dT%H:%M:%S.%f%z")
    except ValueError:
        return None
