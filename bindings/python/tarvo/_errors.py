"""What the SDK refuses, as exceptions. Nothing was done where one is raised, but for what Sdk.deliver says."""

from typing import Any

from ._native import ffi, lib


class TarvoError(Exception):
    """A call that cannot be carried out. What cannot be done later (no network, a full disk) is none: see health()."""


class ArgumentError(TarvoError, ValueError):
    """An argument that cannot be taken: a naive datetime, a number that is not finite, a text that is no UTF-8."""


class JsonError(TarvoError, ValueError):
    """No JSON, or not of the shape that is asked for."""


class ClosedError(TarvoError):
    """The Sdk was closed."""


class AlreadyError(TarvoError):
    """The process has that already; a choice that was made."""


class SecondSdkError(AlreadyError):
    """The process has its Sdk. Use that one, or close it first."""


class TooLateError(TarvoError):
    """Has to be set before the process's first Sdk, and differs from what is in use."""


class TooEarlyError(TarvoError):
    """A push message while there is no position: see Sdk.push_received."""


class InCallbackError(TarvoError):
    """Would wait for the callback that it is called from."""


class WrongThreadError(TarvoError):
    """For the main thread only."""


class ForkedError(TarvoError):
    """The process was forked from the one that has the SDK. Start Python anew there ("spawn" of multiprocessing)."""


class RefusedError(TarvoError):
    """The SDK refuses it; the log says why."""


class StoreError(TarvoError):
    """The store cannot be read now."""


class InternalError(TarvoError):
    """A fault of the SDK."""


_KINDS: dict[int, type[Exception]] = {
    lib.TARVO_BAD_ARGUMENT: ArgumentError,
    lib.TARVO_BAD_HANDLE: ClosedError,
    lib.TARVO_BAD_JSON: JsonError,
    lib.TARVO_ALREADY: AlreadyError,
    lib.TARVO_TOO_LATE: TooLateError,
    lib.TARVO_TOO_EARLY: TooEarlyError,
    lib.TARVO_IN_CALLBACK: InCallbackError,
    lib.TARVO_WRONG_THREAD: WrongThreadError,
    lib.TARVO_FORKED: ForkedError,
    lib.TARVO_REFUSED: RefusedError,
    lib.TARVO_NO_MEMORY: MemoryError,
    lib.TARVO_INTERNAL: InternalError,
}


def check(result: int) -> bool:
    """Whether it was done; False for "there is none" and "something is left". Raises what the caller did wrong."""
    if result < 0:
        raise _KINDS.get(result, InternalError)(ffi.string(lib.tarvo_result_text(result)).decode())
    return bool(result == lib.TARVO_OK)


def refuse(condition: Any, why: str) -> None:
    if condition:
        raise ArgumentError(why)
