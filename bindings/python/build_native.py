"""Makes the module tarvo._native from the header <tarvo-c/tarvo.h>, so that no declaration is written a second time.

CMake calls it (`build_native.py HEADER OUTPUT.c`) and compiles the output; setup.py has cffi do both.
"""

import pathlib
import re
import subprocess
import sys

from cffi import FFI

HERE = pathlib.Path(__file__).resolve().parent

# Functions of Python that the SDK calls, and what native.c puts around them.
OWN = """
extern "Python" {
  void host_released(void *user);
  void host_once(void *user);
  void host_locations(void *user, const tarvo_fix *fixes, size_t count);
  void host_route_matched(void *user, tarvo_history *history);
  void host_prediction(void *user, tarvo_trip *trip);
  void host_receiver_start(void *user, double accuracy_metres);
  void host_receiver_stop(void *user);
  void host_prompt(void *user, tarvo_permission_request request);
  int host_present_alert(void *user, tarvo_alert *alert);
  void host_open_url(void *user, const char *url);
  void host_register_for_push(void *user);
  void host_set_background_fetch_interval(void *user, double seconds);
  void host_place(void *user, const char *geojson);
}
void gated_released(void *user);
void gated_once(void *user);
void gated_place(void *user, const char *geojson);
void gated_table(tarvo_callbacks *table, int with_receiver, int with_prompt);
int gate_close(double seconds);
tarvo_result log_take_over(void);
void log_want(int wanted);
int log_wait(double seconds, char **lines, size_t *length, uint64_t *dropped);
void log_wake(void);
void log_free(char *lines);
void tell_unraisable(uintptr_t exception, uintptr_t object);
"""


def declarations(header: str) -> str:
    """The header as cffi reads it: without comments, directives, and what is for C++ alone."""
    text = re.sub(r"/\*.*?\*/", "", header, flags=re.S)
    text = re.sub(r"^#ifdef __cplusplus\n.*?^#endif\n", "", text, flags=re.S | re.M)
    text = re.sub(r"^#.*\n", "", text, flags=re.M)
    return re.sub(r"\bTARVO_C_(API|INT)\b ?", "", text)


def header_path() -> pathlib.Path:
    """That of this source tree, else the installed one."""
    beside = HERE.parent / "c" / "include" / "tarvo-c" / "tarvo.h"
    if beside.exists():
        return beside
    include = subprocess.run(
        ["pkg-config", "--variable=includedir", "tarvo-c"], check=True, capture_output=True, text=True
    ).stdout.strip()
    return pathlib.Path(include) / "tarvo-c" / "tarvo.h"


def builder(header: pathlib.Path) -> FFI:
    ffi = FFI()
    for part in (header, header.with_name("history.h")):  # which the header includes at its end
        ffi.cdef(declarations(part.read_text(encoding="utf-8")))
    ffi.cdef(OWN)
    ffi.set_source(
        "tarvo._native",
        (HERE / "native.c").read_text(encoding="utf-8"),
        include_dirs=[str(header.parent.parent)],
        libraries=["tarvo-c"],
        define_macros=[("Py_LIMITED_API", "0x030A0000")],
        py_limited_api=True,
    )
    return ffi


def ffibuilder() -> FFI:
    """For setup.py."""
    return builder(header_path())


if __name__ == "__main__":
    builder(pathlib.Path(sys.argv[1])).emit_c_code(sys.argv[2])
