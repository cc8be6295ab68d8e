"""The SDK's messages, as records of a logger.

They hold coordinates, the API key and, at registration, the user's secret, so that nobody gets them unasked. A thread
of Python takes them to the logger: the SDK never waits for it, and lines are dropped, and counted, where it falls
behind by 1 MiB. The line that says why the SDK ends the process goes to standard error at once.
"""

import logging
import threading

from ._errors import check
from ._native import ffi, lib

_lock = threading.Lock()
_logger: logging.Logger | None = None
_thread: threading.Thread | None = None
_is_taken = False


def take_over(logger: logging.Logger | None) -> None:
    """From now on messages go there at level DEBUG, or nowhere."""
    global _is_taken, _logger, _thread
    with _lock:
        _logger = logger
        lib.log_want(logger is not None)
        if logger is not None and _thread is None:
            _thread = threading.Thread(target=_pump, name="tarvo-log", daemon=True)
            _thread.start()
        if not _is_taken:
            check(lib.log_take_over())
            _is_taken = True


def end() -> None:
    """Takes what has come to the logger, and no more."""
    lib.log_want(False)
    thread = _thread
    if thread is not None and thread is not threading.current_thread():
        lib.log_wake()
        thread.join()


def _pump() -> None:
    lines, length, dropped = ffi.new("char **"), ffi.new("size_t *"), ffi.new("uint64_t *")
    while lib.log_wait(3600.0, lines, length, dropped):
        taken = ffi.buffer(lines[0], length[0])[:] if length[0] else b""
        lib.log_free(lines[0])
        for line in taken.split(b"\0")[:-1]:
            fatal = line.startswith(b"Fatal error")
            _tell(logging.CRITICAL if fatal else logging.DEBUG, "%s", line.decode(errors="replace"))
        if dropped[0]:
            _tell(logging.WARNING, "%d lines of the SDK were dropped", dropped[0])


def _tell(level: int, text: str, argument: object) -> None:
    logger = _logger
    try:
        if logger is not None:
            logger.log(level, text, argument)
    except BaseException as error:  # noqa: B902 - of a filter or a handler: the next line may pass
        lib.tell_unraisable(id(error), id(logger))
