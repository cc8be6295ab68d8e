"""A wheel: docs/python.md. The library and its header are those of pkg-config's tarvo-c, or of the environment: CFLAGS,
LDFLAGS."""

import pathlib
import re
import subprocess

from setuptools import setup

cmake = pathlib.Path(__file__).resolve().parents[2] / "CMakeLists.txt"
found = cmake.exists() and re.search(r"^project\(tarvo VERSION (\S+)", cmake.read_text(encoding="utf-8"), re.M)
if found:
    version = found[1]
else:  # away from this tree, maybe in that of another project
    version = subprocess.run(
        ["pkg-config", "--modversion", "tarvo-c"], check=True, capture_output=True, text=True
    ).stdout.strip()

setup(version=version, cffi_modules=["build_native.py:ffibuilder"])
