# Made from <tarvo-c/tarvo.h>: its functions and enumerators are those of the header.
from typing import Any

ffi: Any
lib: Any
