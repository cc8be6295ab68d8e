"""Numbers with names, and records. All records are immutable; what is absent is None; datetimes are aware, in UTC."""

import enum
from dataclasses import dataclass, field
from datetime import datetime, timedelta
from typing import Any

from ._errors import check, refuse
from ._native import ffi, lib
from ._values import date_of, seconds_of, string


class Mode(enum.IntEnum):
    """What a mode switches on. Any integer is a mode."""

    DEACTIVATED = lib.TARVO_DEACTIVATED
    LOCAL_FOREGROUND = lib.TARVO_LOCAL_FOREGROUND
    LOCAL_BACKGROUND = lib.TARVO_LOCAL_BACKGROUND
    BACKEND_BACKGROUND = lib.TARVO_BACKEND_BACKGROUND
    BACKEND_GEOPROFILE = lib.TARVO_BACKEND_GEOPROFILE


class Permission(enum.IntEnum):
    """What the user allows; collection needs one of the last two, and in the background the first of them."""

    NOT_DETERMINED = lib.TARVO_NOT_DETERMINED
    RESTRICTED = lib.TARVO_RESTRICTED
    DENIED = lib.TARVO_DENIED
    AUTHORIZED_ALWAYS = lib.TARVO_AUTHORIZED_ALWAYS
    AUTHORIZED_WHEN_IN_USE = lib.TARVO_AUTHORIZED_WHEN_IN_USE


class PermissionRequest(enum.IntEnum):
    """What a prompt is to ask the user for."""

    WHEN_IN_USE = lib.TARVO_ASK_WHEN_IN_USE
    ALWAYS = lib.TARVO_ASK_ALWAYS


class AppState(enum.IntEnum):
    """Where the application is: ACTIVE on the screen, and so at first."""

    ACTIVE = lib.TARVO_APP_ACTIVE
    INACTIVE = lib.TARVO_APP_INACTIVE
    BACKGROUND = lib.TARVO_APP_BACKGROUND


class Battery(enum.IntEnum):
    """What feeds the device; CHARGING and FULL are mains power."""

    UNKNOWN = lib.TARVO_BATTERY_UNKNOWN
    UNPLUGGED = lib.TARVO_BATTERY_UNPLUGGED
    CHARGING = lib.TARVO_BATTERY_CHARGING
    FULL = lib.TARVO_BATTERY_FULL


class Format(enum.IntEnum):
    """Of a history: positions, or past trips."""

    RAW = lib.TARVO_FORMAT_RAW
    EXTRAPOLATED = lib.TARVO_FORMAT_EXTRAPOLATED


class Geometry(enum.IntEnum):
    """Of GeoJSON: one line for each stretch of collection, or points."""

    LINESTRING = lib.TARVO_LINESTRING
    MULTIPOINT = lib.TARVO_MULTIPOINT


class FlushResult(enum.IntEnum):
    """How a flush has ended; only DELIVERED is true."""

    DELIVERED = lib.TARVO_FLUSH_DELIVERED
    TIME_IS_UP = lib.TARVO_FLUSH_TIME_IS_UP
    MODE_FORBIDS = lib.TARVO_FLUSH_MODE_FORBIDS
    NOT_REGISTERED = lib.TARVO_FLUSH_NOT_REGISTERED
    BYTES_USED_UP = lib.TARVO_FLUSH_BYTES_USED_UP
    SESSION_FAILED = lib.TARVO_FLUSH_SESSION_FAILED
    STORE_UNAVAILABLE = lib.TARVO_FLUSH_STORE_UNAVAILABLE

    def __bool__(self) -> bool:
        return self is FlushResult.DELIVERED


class Value(enum.IntEnum):
    """Values of the process: Sdk.value and Sdk.set_value."""

    API_KEY = lib.TARVO_API_KEY
    CLIENT_ID = lib.TARVO_CLIENT_ID
    BUNDLE_ID = lib.TARVO_BUNDLE_ID
    DEVICE_TOKEN = lib.TARVO_DEVICE_TOKEN
    TOKEN_SENT = lib.TARVO_TOKEN_SENT
    SET_TAGS_LIST = lib.TARVO_SET_TAGS_LIST
    UNSET_TAGS_LIST = lib.TARVO_UNSET_TAGS_LIST
    BACKGROUND_SESSION_ID = lib.TARVO_BACKGROUND_SESSION_ID
    REMOTE_WEB_SERVER_URL = lib.TARVO_REMOTE_WEB_SERVER_URL
    USER_UUID = lib.TARVO_USER_UUID
    TERRAMESH_DATA_VERSION = lib.TARVO_TERRAMESH_DATA_VERSION
    IDENTIFIER_FOR_VENDOR = lib.TARVO_IDENTIFIER_FOR_VENDOR
    SUBSCRIPTION_LIST = lib.TARVO_SUBSCRIPTION_LIST
    UNSUBSCRIPTION_LIST = lib.TARVO_UNSUBSCRIPTION_LIST
    # Of the engine; only read, but for the secret.
    API_KEY_SECRET = lib.TARVO_API_KEY_SECRET
    CALL_FROM_SERVER_KEY = lib.TARVO_CALL_FROM_SERVER_KEY
    ENGINE_API_KEY = lib.TARVO_ENGINE_API_KEY
    STARTED = lib.TARVO_STARTED
    ALREADY_RECEIVED_UUID = lib.TARVO_ALREADY_RECEIVED_UUID
    RANDOM_ID = lib.TARVO_RANDOM_ID
    APP_STATE = lib.TARVO_APP_STATE
    SECRET_KEY = lib.TARVO_SECRET_KEY
    UUID_SECRET = lib.TARVO_UUID_SECRET
    CHANNEL_IS_HELD = lib.TARVO_CHANNEL_IS_HELD
    CHANNEL_TAKEN_AT = lib.TARVO_CHANNEL_TAKEN_AT
    LAST_TRIP_ID = lib.TARVO_LAST_TRIP_ID

    @property
    def is_json(self) -> bool:
        """Whether it is a truth, a number, a list or a dictionary, and no text."""
        return self in (
            Value.TOKEN_SENT,
            Value.SET_TAGS_LIST,
            Value.UNSET_TAGS_LIST,
            Value.SUBSCRIPTION_LIST,
            Value.UNSUBSCRIPTION_LIST,
            Value.STARTED,
            Value.ALREADY_RECEIVED_UUID,
            Value.RANDOM_ID,
            Value.CHANNEL_IS_HELD,
            Value.CHANNEL_TAKEN_AT,
            Value.LAST_TRIP_ID,
        )


def now() -> datetime:
    """What the SDK's clock shows."""
    return date_of(lib.tarvo_now())


@dataclass(frozen=True, slots=True)
class Fix:
    """What a receiver gives. Degrees (WGS 84), metres, metres per second, degrees clockwise from true north."""

    latitude: float
    longitude: float
    horizontal_accuracy: float | None = 0.0
    """None: the place is invalid."""
    altitude: float = 0.0
    vertical_accuracy: float | None = None
    """None: the altitude is invalid."""
    course: float | None = None
    speed: float | None = None
    time: datetime = field(default_factory=now)
    """When the receiver made it."""
    floor: int | None = None


def fill_fix(fix: Fix, out: Any) -> None:
    out.latitude = fix.latitude
    out.longitude = fix.longitude
    out.altitude = fix.altitude
    out.horizontal_accuracy = -1.0 if fix.horizontal_accuracy is None else fix.horizontal_accuracy
    out.vertical_accuracy = -1.0 if fix.vertical_accuracy is None else fix.vertical_accuracy
    out.course = -1.0 if fix.course is None else fix.course
    out.speed = -1.0 if fix.speed is None else fix.speed
    out.time = seconds_of(fix.time)
    out.has_floor = fix.floor is not None
    refuse(fix.floor is not None and not -(2**31) <= fix.floor < 2**31, "a floor that no building has")
    out.floor = fix.floor or 0


def fix_of(fix: Any) -> Fix:
    return Fix(
        fix.latitude,
        fix.longitude,
        _not_negative(fix.horizontal_accuracy),
        fix.altitude,
        _not_negative(fix.vertical_accuracy),
        _not_negative(fix.course),
        _not_negative(fix.speed),
        date_of(fix.time),
        fix.floor if fix.has_floor else None,
    )


def _not_negative(number: float) -> float | None:
    return number if number >= 0 else None


@dataclass(frozen=True, slots=True)
class Position:
    """A stored position. Its texts are the backend's words: what stored it, and how the place was found."""

    latitude: float | None
    """Degrees, WGS 84."""
    longitude: float | None
    altitude: float | None
    """Metres above sea level."""
    horizontal_accuracy: float | None
    """Metres."""
    vertical_accuracy: float | None
    course: float | None
    """Degrees clockwise from true north."""
    speed: float | None
    """Metres per second."""
    fix_time: datetime | None
    """When the receiver made the fix."""
    stored_time: datetime | None
    """When it was stored."""
    floor: int | None
    """Of a building, 0 at the ground."""
    index: int | None
    """Running number from 0; the backend knows it by this."""
    unsent: bool | None
    """Until the backend has acknowledged it."""
    sent_without_ack: bool | None
    """Posted, and not acknowledged so far."""
    service_action: str | None
    """Why it was stored, as "loc_changed"."""
    localisation_method: str | None
    """How the fix came about, as "sls"."""
    user_action: str | None
    """Always "unknown"."""
    app_name: str | None
    """With the host's bundle identifier."""
    app_action: str | None
    """Always "unused"."""
    identifier_for_vendor: str | None
    """Of the device."""


@dataclass(frozen=True, slots=True)
class PastTrip:
    """A past trip as the backend rebuilt it; coordinates in degrees."""

    id: int | None
    departure_latitude: float | None
    departure_longitude: float | None
    arrival_latitude: float | None
    arrival_longitude: float | None
    start_time: datetime | None
    arrival_time: datetime | None
    route: dict[str, Any] | None
    """GeoJSON."""


@dataclass(frozen=True, slots=True)
class Bounds:
    """Degrees."""

    south: float
    west: float
    north: float
    east: float


@dataclass(frozen=True, slots=True)
class SyncStatus:
    """Counts in the store, and batches since the process began."""

    stored: int
    """In the store's file; the next three are of these."""
    unsent: int
    """Never posted."""
    awaiting: int
    """Posted, not acknowledged."""
    acknowledged: int
    unsaved: int
    """In memory alone, since saving failed."""
    last_index: int | None
    """Of all, also unsaved."""
    batches_posted: int
    positions_posted: int
    """Repeats included."""
    store_available: bool
    """False also while another process writes and this one wants to."""


@dataclass(frozen=True, slots=True)
class DeliveryOptions:
    """See docs/hosting.md; change some with dataclasses.replace."""

    least_pass_interval: timedelta = timedelta()
    confirmed: bool = False
    network_is_metered: bool = False
    drops_protocol_breaks: bool = True
    metered_bytes_per_day: int | None = None


@dataclass(frozen=True, slots=True)
class StorageLimits:
    """None: no bound."""

    position_age: timedelta | None = None
    store_bytes: int | None = None
    log_age: timedelta | None = None
    log_bytes: int | None = None


@dataclass(frozen=True, slots=True)
class TransferOptions:
    """None leaves a thing as it is without these options. Files are PEM."""

    proxy: str | None = None
    ca_file: str | None = None
    client_certificate_file: str | None = None
    client_key_file: str | None = None
    client_key_passphrase: str | None = field(default=None, repr=False)
    network_interface: str | None = None


def options_of(record: Any) -> DeliveryOptions:
    return DeliveryOptions(
        timedelta(seconds=record.least_pass_interval),
        bool(record.confirmed),
        bool(record.network_is_metered),
        bool(record.drops_protocol_breaks),
        record.metered_bytes_per_day if record.has_metered_bytes_per_day else None,
    )


def fill_options(options: DeliveryOptions, out: Any) -> None:
    out.least_pass_interval = options.least_pass_interval.total_seconds()
    out.confirmed = options.confirmed
    out.network_is_metered = options.network_is_metered
    out.drops_protocol_breaks = options.drops_protocol_breaks
    out.has_metered_bytes_per_day = options.metered_bytes_per_day is not None
    out.metered_bytes_per_day = _bytes(options.metered_bytes_per_day)


def limits_of(record: Any) -> StorageLimits:
    return StorageLimits(
        timedelta(seconds=record.position_age) if record.position_age else None,
        record.store_bytes or None,
        timedelta(seconds=record.log_age) if record.log_age else None,
        record.log_bytes or None,
    )


def fill_limits(limits: StorageLimits, out: Any) -> None:
    out.position_age = 0 if limits.position_age is None else limits.position_age.total_seconds()
    out.log_age = 0 if limits.log_age is None else limits.log_age.total_seconds()
    out.store_bytes = _bytes(limits.store_bytes)
    out.log_bytes = _bytes(limits.log_bytes)


def _bytes(count: int | None) -> int:
    refuse(count is not None and not 0 <= count < 2**64, "a number of bytes that cannot be")
    return count or 0


def status_of(record: Any) -> SyncStatus:
    return SyncStatus(
        record.stored,
        record.unsent,
        record.awaiting,
        record.acknowledged,
        record.unsaved,
        None if record.last_index < 0 else record.last_index,
        record.batches_posted,
        record.positions_posted,
        bool(record.store_available),
    )


class Alert:
    """What is to be shown to the user. It may be kept and answered later, once, on any thread."""

    __slots__ = ("_handle", "actions", "message", "title")

    def __init__(self, borrowed: Any) -> None:
        self._handle = ffi.gc(lib.tarvo_alert_ref(borrowed), lib.tarvo_alert_unref)
        title, message, is_cancel = ffi.new("char const **"), ffi.new("char const **"), ffi.new("int *")
        check(lib.tarvo_alert_texts(self._handle, title, message))
        self.title: str = string(title[0])
        self.message: str = string(message[0])
        actions: list[tuple[str, bool]] = []
        while check(lib.tarvo_alert_action(self._handle, len(actions), title, is_cancel)):
            actions.append((string(title[0]), bool(is_cancel[0])))
        self.actions: tuple[tuple[str, bool], ...] = tuple(actions)
        """The buttons: what each says, and whether it stands for "no"."""

    def choose(self, action: int) -> None:
        """The user has chosen that button. AlreadyError the second time."""
        refuse(not 0 <= action < len(self.actions), "there is no such button")
        check(lib.tarvo_alert_choose(self._handle, action))
