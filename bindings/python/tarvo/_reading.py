"""What an Sdk tells, and the options and values that it keeps."""

import json
from collections.abc import Mapping
from datetime import datetime
from typing import Any

from ._callbacks import hold, let_go
from ._errors import check
from ._history import History, Trip
from ._native import ffi, lib
from ._records import (
    DeliveryOptions,
    Fix,
    Format,
    StorageLimits,
    SyncStatus,
    Value,
    fill_limits,
    fill_options,
    fix_of,
    limits_of,
    options_of,
    status_of,
)
from ._values import Json, bound_of, json_of, record, taken_json, taken_text, text_of


class Reading:
    """Any thread may call; no call changes what is stored, but those that say so."""

    @property
    def _live(self) -> Any:
        raise NotImplementedError

    # ---- Answers ----

    @property
    def current_location(self) -> Fix | None:
        """The stored position with the newest fix time; None in mode DEACTIVATED and without one. Asks for the
        permission that the mode needs."""
        out = ffi.new("tarvo_fix *")
        return fix_of(out) if check(lib.tarvo_current_location(self._live, out)) else None

    def history(
        self, since: datetime | None = None, until: datetime | None = None, format: Format = Format.RAW
    ) -> History | None:
        """Positions from mode 4, by the time of storage, past trips from mode 8, by their start; both bounds are
        included. None in lower modes, and where there is nothing."""
        out = ffi.new("tarvo_history **")
        found = check(lib.tarvo_get_history(self._live, format, bound_of(since), bound_of(until), out))
        return History(out[0]) if found else None

    @property
    def next_trip(self) -> Trip | None:
        """The latest prediction, maybe an empty one; None below mode 12."""
        return self._trip(lib.tarvo_next_trip)

    @property
    def last_prediction(self) -> Trip | None:
        """The same in any mode."""
        return self._trip(lib.tarvo_last_prediction)

    @last_prediction.setter
    def last_prediction(self, trip: Trip | None) -> None:
        check(lib.tarvo_set_last_prediction(self._live, ffi.NULL if trip is None else trip._handle))

    def _trip(self, function: Any) -> Trip | None:
        out = ffi.new("tarvo_trip **")
        return Trip(out[0]) if check(function(self._live, out)) else None

    def points_of_interest(self) -> list[dict[str, Any]]:
        """The zone of each stored place, GeoJSON, highest identifier first; in any mode."""
        places: list[str] = []
        user = hold(places)
        try:
            check(lib.tarvo_points_of_interest(self._live, ffi.addressof(lib, "gated_place"), user))
        finally:
            let_go(user)
        return [json.loads(place) for place in places]

    @property
    def sync_status(self) -> SyncStatus:
        """Counts in the store, in any mode."""
        out = record("tarvo_sync_status")
        check(lib.tarvo_get_sync_status(self._live, out))
        return status_of(out)

    def health(self) -> dict[str, Any]:
        """Why is there a hole in this track? The names of `tarvo status --json`, and "store_available"; times are
        seconds since 1970. See docs/hosting.md."""
        content: dict[str, Any] = taken_json(lib.tarvo_health, self._live)
        return content

    # ---- Options ----

    @property
    def delivery_options(self) -> DeliveryOptions:
        """Those in use; to be set at any time."""
        out = record("tarvo_delivery_options")
        check(lib.tarvo_get_delivery_options(self._live, out))
        return options_of(out)

    @delivery_options.setter
    def delivery_options(self, options: DeliveryOptions) -> None:
        given = record("tarvo_delivery_options")
        fill_options(options, given)
        check(lib.tarvo_set_delivery_options(self._live, given))

    @property
    def storage_limits(self) -> StorageLimits:
        """Those in use; to be set at any time."""
        out = record("tarvo_storage_limits")
        check(lib.tarvo_get_storage_limits(self._live, out))
        return limits_of(out)

    @storage_limits.setter
    def storage_limits(self, limits: StorageLimits) -> None:
        given = record("tarvo_storage_limits")
        fill_limits(limits, given)
        check(lib.tarvo_set_storage_limits(self._live, given))

    # ---- Values ----

    def value(self, value: Value) -> Json:
        """A text, a truth, a number, a list or a dictionary of texts; None where there is none."""
        read = taken_json if Value(value).is_json else taken_text
        return read(lib.tarvo_get_value, self._live, value)

    def set_value(self, value: Value, content: Json) -> None:
        """RefusedError for an identifier that cannot be one, ArgumentError for a value that is only read."""
        given = (json_of if Value(value).is_json else text_of)(content)
        check(lib.tarvo_set_value(self._live, value, given))

    @property
    def user_uuid(self) -> str | None:
        """None until the device is registered."""
        uuid: str | None = self.value(Value.USER_UUID)
        return uuid

    def setting(self, key: str) -> Json:
        """One that outlives the process, such as "tarvologlevel"; None where there is none."""
        return taken_json(lib.tarvo_get_setting, self._live, text_of(key))

    def set_setting(self, key: str, content: Json) -> None:
        """None removes it."""
        given = ffi.NULL if content is None else text_of(json.dumps(content))
        check(lib.tarvo_set_setting(self._live, text_of(key), given))

    # ---- The backend ----

    def upload(self) -> None:
        """Starts an upload pass, in modes from 8: it neither waits after a failure nor keeps an interval."""
        check(lib.tarvo_upload(self._live))

    def request_route_match(self) -> None:
        """New past trips come to on_route_matched and events()."""
        check(lib.tarvo_request_route_match(self._live))

    def stop_route_match(self) -> None:
        """No more; the subscription at the backend stays."""
        check(lib.tarvo_stop_route_match(self._live))

    def request_prediction_update(self) -> None:
        """Predictions come to on_prediction and events()."""
        check(lib.tarvo_request_prediction_update(self._live))

    def stop_prediction_update(self) -> None:
        """No more; the subscription at the backend stays."""
        check(lib.tarvo_stop_prediction_update(self._live))

    def subscribe(self, name: str, content: Json) -> None:
        """Subscribes to push messages; `content` says what the backend is to send."""
        check(lib.tarvo_set_subscription(self._live, text_of(name), json_of(content)))

    def unsubscribe(self, name: str) -> None:
        """Ends that subscription."""
        check(lib.tarvo_set_unsubscription(self._live, text_of(name)))

    def set_tag(self, name: str, value: str) -> None:
        """Sets a tag of this user at the backend, now and with each push message."""
        check(lib.tarvo_set_tag(self._live, text_of(name), text_of(value)))

    def unset_tag(self, name: str) -> None:
        """Removes it there, now and with each push message."""
        check(lib.tarvo_unset_tag(self._live, text_of(name)))

    def push_received(self, message: Mapping[str, Any] | str) -> bool:
        """A push message. Whether it was for the SDK. In a mode from 8 TooEarlyError before this process was given a
        usable fix or, without the permission "always", while there is no stored position."""
        given = message if isinstance(message, str) else dict(message)
        return check(lib.tarvo_push_received(self._live, json_of(given)))

    def set_device_token(self, token: str) -> None:
        """Gives the backend the token for push messages, at the latest with the registration."""
        check(lib.tarvo_set_device_token(self._live, text_of(token)))

    def set_api_key_secret(self, secret: str) -> None:
        """The secret of the host's API key, before or after activate."""
        check(lib.tarvo_set_api_key_secret(self._live, text_of(secret)))

    def reset_backend_history(self) -> None:
        """Asks the backend to forget past trips and profile; what is stored here stays."""
        check(lib.tarvo_reset_backend_history(self._live))

    def reset_geo_profile_history(self) -> None:
        """The same of the profile alone."""
        check(lib.tarvo_reset_geo_profile_history(self._live))

    def reset_local_history(self) -> None:
        """Deletes stored past trips and places; positions stay."""
        check(lib.tarvo_reset_local_history(self._live))

    def erase_everything(self) -> bool:
        """For a person's right to be forgotten. False when not everything could be erased: call it again, or start
        anew, and activate nothing before. Call nothing else meanwhile."""
        return check(lib.tarvo_erase_everything(self._live))
