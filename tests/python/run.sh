#!/usr/bin/env bash
# The Python package, its documents and its examples; all tests, or as the arguments for pytest say.
# usage: run.sh PYTHON PACKAGE_DIR TARVO_PROGRAM SOURCE_DIR [ARGUMENT...]
# 77 where pytest, pytest-forked or cffi's backend is not installed. A process has one SDK, so every test gets its own.
set -euo pipefail
python=$1 source=$4
export PYTHONPATH=$2:$source/examples/python TARVO_PROGRAM=$3 TARVO_SOURCE=$source PYTHONDONTWRITEBYTECODE=1
"$python" -c 'import pytest, pytest_forked, _cffi_backend' 2>/dev/null ||
  { echo "skipped: no pytest, pytest-forked or cffi"; exit 77; }
cd "$source/tests/python"
exec "$python" -W error -m pytest -q -p no:cacheprovider --forked "${@:5}"
