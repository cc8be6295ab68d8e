"""Location intelligence: positions collected, kept and uploaded by one SDK. docs/python.md has a first program.

    with tarvo.Sdk("/var/lib/unit", server="https://backend.example/api", client_id="client", api_key="key",
                   bundle_id="com.example.unit", api_secret=secret) as sdk:
        sdk.activate(tarvo.Mode.BACKEND_BACKGROUND)
        sdk.deliver(tarvo.Fix(48.1, 11.5, 5.0))
        sdk.flush(30)
"""

from ._callbacks import Receiver, Subscription
from ._errors import (
    AlreadyError,
    ArgumentError,
    ClosedError,
    ForkedError,
    InCallbackError,
    InternalError,
    JsonError,
    RefusedError,
    SecondSdkError,
    StoreError,
    TarvoError,
    TooEarlyError,
    TooLateError,
    WrongThreadError,
)
from ._history import History, Trip, Trips
from ._records import (
    Alert,
    AppState,
    Battery,
    Bounds,
    DeliveryOptions,
    Fix,
    FlushResult,
    Format,
    Geometry,
    Mode,
    PastTrip,
    Permission,
    PermissionRequest,
    Position,
    StorageLimits,
    SyncStatus,
    TransferOptions,
    Value,
    now,
)
from ._sdk import Sdk, move_clock, set_manual_clock, version
from ._streams import Event, PredictionUpdated, RouteMatched, Stream

__all__ = [
    "Alert",
    "AlreadyError",
    "AppState",
    "ArgumentError",
    "Battery",
    "Bounds",
    "ClosedError",
    "DeliveryOptions",
    "Event",
    "Fix",
    "FlushResult",
    "ForkedError",
    "Format",
    "Geometry",
    "History",
    "InCallbackError",
    "InternalError",
    "JsonError",
    "Mode",
    "PastTrip",
    "Permission",
    "PermissionRequest",
    "Position",
    "PredictionUpdated",
    "Receiver",
    "RefusedError",
    "RouteMatched",
    "Sdk",
    "SecondSdkError",
    "StorageLimits",
    "StoreError",
    "Stream",
    "Subscription",
    "SyncStatus",
    "TarvoError",
    "TooEarlyError",
    "TooLateError",
    "TransferOptions",
    "Trip",
    "Trips",
    "Value",
    "WrongThreadError",
    "move_clock",
    "now",
    "set_manual_clock",
    "version",
]
