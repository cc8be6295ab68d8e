"""Values between Python and C."""

import json
import math
import os
from datetime import datetime, timedelta, timezone
from typing import Any

from ._errors import ArgumentError, JsonError, check
from ._native import ffi, lib

EPOCH = datetime(1970, 1, 1, tzinfo=timezone.utc)
_EARLIEST = datetime.min.replace(tzinfo=timezone.utc)
_LATEST = datetime.max.replace(tzinfo=timezone.utc)

Json = Any  # what json.loads gives


def seconds_of(date: datetime) -> float:
    """Seconds since 1970, of a datetime that says in which zone it is."""
    if not isinstance(date, datetime):
        raise TypeError(f"a datetime is needed, not {type(date).__name__}")
    if date.tzinfo is None or date.utcoffset() is None:
        raise ArgumentError("a naive datetime says no moment: give it a zone, such as timezone.utc")
    return (date - EPOCH).total_seconds()


def date_of(seconds: float) -> datetime:
    """What lies beyond the years of Python is moved to their end."""
    try:
        return EPOCH + timedelta(seconds=seconds)
    except OverflowError:
        return _LATEST if seconds > 0 else _EARLIEST


def bound_of(date: datetime | None) -> float:
    return math.nan if date is None else seconds_of(date)


def text_of(text: str) -> bytes:
    """A text for C, which ends at a zero character."""
    if not isinstance(text, str):
        raise TypeError(f"a text is needed, not {type(text).__name__}")
    if "\0" in text:
        raise ArgumentError("a text with a zero character")
    try:
        return text.encode()
    except UnicodeEncodeError as error:
        raise ArgumentError(str(error)) from None


def path_of(path: str | os.PathLike[str]) -> bytes:
    """The same of a path: bytes, as the system has them."""
    given = os.fsencode(path)
    if b"\0" in given:
        raise ArgumentError("a path with a zero character")
    return given


def json_of(value: Json) -> bytes:
    """A text is JSON already."""
    if isinstance(value, str):
        return text_of(value)
    try:
        return text_of(json.dumps(value, allow_nan=False))
    except (TypeError, ValueError) as error:
        raise JsonError(str(error)) from None


def string(pointer: Any) -> str:
    return str(ffi.string(pointer).decode(errors="replace"))


def string_or_none(pointer: Any) -> str | None:
    return None if pointer == ffi.NULL else string(pointer)


def record(name: str) -> Any:
    """One that begins with its size."""
    new = ffi.new(name + " *")
    new.size = ffi.sizeof(name)
    return new


def taken_text(function: Any, *arguments: Any) -> str | None:
    """What a function gives through its last argument, to be given back; None for "there is none"."""
    out = ffi.new("char **")
    if not check(function(*arguments, out)):
        return None
    try:
        return string(out[0])
    finally:
        lib.tarvo_free(out[0])


def taken_json(function: Any, *arguments: Any) -> Json:
    text = taken_text(function, *arguments)
    return None if text is None else json.loads(text)
