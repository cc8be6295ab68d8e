"""README.md and docs/python.md say what works, and all of it is typed."""

import pathlib
import re

import pytest
from conftest import SOURCE, Run

PAGES = "".join((SOURCE / page).read_text() for page in ("README.md", "docs/python.md"))
SNIPPETS = re.findall(r"^```python\n(.*?)^```$", PAGES, re.S | re.M)

@pytest.mark.parametrize("number", range(len(SNIPPETS)))
def test_a_snippet_runs(backend: str, run: Run, tmp_path: pathlib.Path, number: int) -> None:
    program = tmp_path / "unit.py"
    program.write_text(SNIPPETS[number])
    ended = run(program, tmp_path / "home", backend)
    assert ended.returncode == 0, ended.stderr
    assert ended.stderr == "" and "48.002" in ended.stdout

def test_it_is_typed(run: Run, tmp_path: pathlib.Path) -> None:
    pytest.importorskip("mypy", reason="mypy is not installed")
    for number, snippet in enumerate(SNIPPETS):
        (tmp_path / f"snippet{number}.py").write_text(snippet)
    config = SOURCE / "bindings/python/pyproject.toml"
    files = [SOURCE / "bindings/python/tarvo", *SOURCE.glob("examples/python/*.py"), *SOURCE.glob("tests/python/*.py"),
             *(SOURCE / "tests/manual" / name for name in ("pages.py", "snippets.py"))]
    checked = run("-m", "mypy", f"--config-file={config}", *files, *tmp_path.glob("snippet*.py"))
    assert checked.returncode == 0, checked.stdout
