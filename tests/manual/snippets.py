"""Every block of the manual is tried: compiled, run, parsed, or compared with what the program really says.
usage: snippets.py PART TARVO_PROGRAM SOURCE_DIR BUILD_DIR CXX

Hidden comments tell how: `needs` (declarations that a fragment of C++ leaves out), `package` (of pkg-config, that it
includes), `check` (what a block is compared with), `not run` (why not; its options are looked at all the same), `file`
(its name for the commands that follow), `in order` (a page whose commands are run one after the other, and print what
the text behind them says).
"""

import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import shutil
import socket
import subprocess
import sys
import tempfile
import typing

from pages import Block, blocks

PART, CXX = sys.argv[1], sys.argv[5]
TARVO, SOURCE, BUILD = (pathlib.Path(path).resolve() for path in sys.argv[2:5])
WORK = pathlib.Path(tempfile.mkdtemp(prefix="tarvo-manual-"))
# Languages, and the pages to which they are bound: those that a test of their own reads.
LANGUAGES = dict.fromkeys(["cmake", "cpp", "ini", "json", "jsonl", "sh", "sql", "text", "toml"])
LANGUAGES |= {"c": "docs/c.md", "objc": "docs/objc.md", "python": "docs/python.md README.md"}
# Commands of a system, which the machine that runs this need not have.
SYSTEM = """apt cc cd clang clang-format-14 createdb curl dpkg-buildpackage editor export gcc socat sqlite3 systemctl
    ulimit umask unshare""".split()
ALL = list(blocks(SOURCE))
failures: list[str] = []


def fail(where: typing.Any, why: str) -> None:
    failures.append(f"{where}: {why.strip()}")


def run(*command: typing.Any, **how: typing.Any) -> subprocess.CompletedProcess[str]:
    how = {"timeout": 120, "cwd": WORK, "env": os.environ, **how}
    words = [str(word) for word in command]
    return subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **how)


def of(*languages: str) -> list[Block]:
    return [block for block in ALL if block.language in languages and not block.is_in_order()]


def labels() -> None:
    for block in ALL:
        if block.language not in LANGUAGES:
            fail(block, f"a block of {block.language or 'no language'}, for which there is no check")
        elif block.page not in (LANGUAGES[block.language] or block.page).split():
            fail(block, f"no test compiles {block.language} of this page")
        elif block.language == "cmake" and not ("file" in block.says and block.is_in_order()):
            fail(block, "no command uses this file")
        elif block.says.get("check", "truth") not in CHECKS:
            fail(block, f"there is no check of the name {block.says['check']}")
    told = (SOURCE / "docs/faults.md").read_text()
    for driver in SOURCE.glob("tests/faults/*.cpp"):
        if f"| `{driver.stem}` |" not in told:
            fail("docs/faults.md", f"nothing is said of {driver.name}")


def cpp() -> None:
    """Whole programs run; fragments compile, all in one, declarations outside of a body and the rest in one."""
    headers = [path.relative_to(SOURCE / "include") for path in SOURCE.glob("include/tarvo/**/*.h")]
    includes, rest, flags = [f"#include <{header}>" for header in headers], [], ["-std=c++20", f"-I{SOURCE}/include"]
    for number, block in enumerate(of("cpp")):
        if "int main(" in block.text:
            (WORK / "unit.cpp").write_text(block.text)
            library = next(BUILD.glob("**/libtarvo.so"))
            link = [library, f"-Wl,-rpath,{library.parent}"]
            built = run(CXX, *flags, "-Wall", "-Wextra", "-Werror", "unit.cpp", *link, "-o", "unit")
            ended = run(WORK / "unit", WORK / "home", "http://127.0.0.1:9/api") if built.returncode == 0 else built
            if ended.returncode:
                fail(block, ended.stdout)
            continue
        if package := block.says.get("package"):
            found = run("pkg-config", "--cflags", package)
            if found.returncode:
                print(f"{block}: left out, {package} is not installed")
                continue
            flags += found.stdout.split()
        outside, inside, is_outside = [block.says.get("needs", "")], [""], False
        for at, line in enumerate(block.text.split("\n"), block.line):
            numbered = f'#line {at} "{block.page}"\n{line}'
            begins = re.match(r"(class|struct|\w[\w:<>*&]*) \**\w+(\(.*\))?.* \{( *//.*)?$", line)
            is_outside = is_outside or begins is not None
            (includes if line.startswith("#include") else outside if is_outside else inside).append(numbered)
            is_outside = is_outside and not line.startswith("}")
        rest += [f"namespace snippet{number} {{", *outside, "int body() {", *inside, "return 0;\n}\n}"]
    (WORK / "fragments.cpp").write_text("\n".join(includes + rest))
    compiled = run(CXX, *flags, "-Wall", "-Wextra", "-Werror", "-Wno-unused", "-fsyntax-only", "fragments.cpp")
    if compiled.returncode:
        fail("fragments", compiled.stdout)


def commands(block: Block) -> typing.Iterator[list[str]]:
    """The words of each command of a block, without redirections and what stands before it."""
    plain = re.sub(r"\$\([^()]*\)", "WORDS", block.text.replace("\\\n", " "))
    for line in re.sub(r"( \[[^]|]*)\|", r"\1", plain).split("\n"):  # a synopsis has alternatives, no pipes
        words = shlex.shlex(line, posix=True, punctuation_chars=True)
        words.whitespace_split = True
        command: list[str] = []
        skip = False
        for word in [*words, ";"]:
            if re.fullmatch(r"[;|&()]+", word):
                if command:
                    yield command
                command = []
            elif skip or re.fullmatch(r"[<>&]+", word):
                skip = not skip
            elif command or not re.match(r"\w+=", word):
                command.append(word)


def world() -> pathlib.Path:
    """A folder with what the commands of the manual name: a home with a trip in it, files, a secret."""
    folder = WORK / "world"
    for name in ["etc/tarvo", "srv/tarvo", "var/lib/tarvo", "bin"]:
        (folder / name).mkdir(parents=True)
    (folder / "bin/xdg-open").write_text("#!/bin/sh\n")
    (folder / "bin/xdg-open").chmod(0o755)
    for name in ["etc/tarvo/api-secret", "tarvo-secret"]:
        (folder / name).write_text("secret\n")
        (folder / name).chmod(0o600)
    toml = next(block.text for block in of("toml"))
    for name in ["etc/tarvo/tarvo.toml", "tarvo.toml"]:
        (folder / name).write_text(toml if "etc" in name else re.sub("gpsd.*", "", toml))
    shutil.copy(SOURCE / "apps/demo/backend.json", folder)
    run(TARVO, *"simulate --from 48.1,11.5 --to 48.13,11.6 --profile outing --seed 1".split(), "--start",
        "2024-06-15T09:00:00Z", "--output", folder / "trip.gpx")
    (folder / "day.jsonl").write_text(next(block.text for block in of("jsonl")))
    (folder / "rules.json").write_text(next(block.text for block in of("json") if block.says.get("check") == "faults"))
    replay(folder, "--home", "home", "--mode", "12")
    return folder


def replay(folder: pathlib.Path, *options: str) -> None:
    ended = run(TARVO, "replay", "trip.gpx", "--sandbox", *options, cwd=folder)
    if ended.returncode:
        fail("tarvo replay", ended.stdout[-500:])


def tries(folder: pathlib.Path, where: Block, words: list[str]) -> None:
    """The command ends well, or still runs after a while."""
    shutil.copytree(WORK / "world", folder)
    names = {"TRACE.gpx": "trip.gpx", "DAY.jsonl": "day.jsonl", "RULES.json": "rules.json", "DIR": "home", "ID": "demo",
             "KEY": "demo-key", "FILE": "tarvo-secret", "URL": "http://127.0.0.1:9/api"}
    words = [re.sub("^(?:~|(/etc|/srv|/var))/", rf"{folder}\1/", names.get(word, word)) for word in words]
    if words[1] == "sandbox":
        words += ["--port", "0", "--data", "data"]
    elif words[1] in ("status", "flush", "push", "set") and "--home" not in words:
        words += ["--home", "home"]
    environment = {**os.environ, "HOME": str(folder), "PATH": f"{folder}/bin:{os.environ['PATH']}"}
    try:
        ended = run(TARVO, *words[1:], cwd=folder, env=environment, timeout=4)
        if ended.returncode:
            fail(where, f"{' '.join(words)}: status {ended.returncode}: {ended.stdout[-500:]}")
    except subprocess.TimeoutExpired:
        pass


def known(where: Block, words: list[str]) -> None:
    """What the command names exists: the options of this tree's programs, its scripts, its packages."""
    name, script = words[0], SOURCE / words[0]
    options = {word for word in re.findall(r"(?<![\w-])--[a-z][\w-]*", " ".join(words))}
    if name == "tarvo":
        has = run(TARVO, *([words[1]] if len(words) > 1 and words[1].isalpha() else []), "--help").stdout
    elif name == "tests/faults/run":
        has = (SOURCE / "tests/faults/Driver.h").read_text()
        if not (SOURCE / f"tests/faults/{words[1]}.cpp").is_file() and words[1] != "KIND":
            fail(where, f"{words[1]} is no kind of fault")
    elif script.is_file() and script.is_relative_to(SOURCE) and os.access(script, os.R_OK):
        has = script.read_text(errors="replace")
    else:
        if name == "apt":
            control = (SOURCE / "debian/control").read_text()
            for package in re.findall(r"[\w.-]*tarvo[\w.-]*", " ".join(words).replace("build/packages", "")):
                if f"Package: {package.split('_')[0]}\n" not in control:
                    fail(where, f"there is no package {package}")
        elif not name.startswith("build/") and name not in SYSTEM and not shutil.which(name):
            fail(where, f"what is {name}?")
        return
    for option in options:
        if not re.search(rf"{option}(?![\w-])", has) and f'"{option[2:]}' not in has:
            fail(where, f"{name} has no {option}")


def shell() -> None:
    world()
    tried = []
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        for block in [each for each in ALL if each.language == "sh"]:
            parsed = run("bash", "-n", input=block.text)
            if parsed.returncode:
                fail(block, parsed.stdout)
                continue
            for number, words in enumerate(commands(block)):
                known(block, words)
                if words[0] == "tarvo" and "not run" not in block.says and not block.is_in_order():
                    folder = WORK / f"{block.page.replace('/', '-')}-{block.line}-{number}"
                    tried.append(pool.submit(tries, folder, block, words))
    for done in tried:
        done.result()


def in_order() -> None:
    """Pages that are sessions: their commands in one shell, with an installed copy; each text is what was printed."""
    if missing := [tool for tool in ("curl", "sqlite3") if not shutil.which(tool)]:
        print(f"skipped: {missing} not installed")
        sys.exit(77)
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        port = str(free.getsockname()[1])
    installed = run("cmake", "--install", BUILD, "--component", "Unspecified", "--prefix", WORK / "tarvo")
    if installed.returncode:
        fail("cmake --install", installed.stdout)
    world()
    for page in sorted({block.page for block in ALL if block.is_in_order()}):
        house = shutil.copytree(WORK / "world", WORK / f"house-{pathlib.Path(page).stem}")
        (house / "tarvo").symlink_to(WORK / "tarvo")
        path = f"{house}/bin:{BUILD}/bin:{os.environ['PATH']}"
        script, printed = ["set -e; trap 'kill $(jobs -p) 2>/dev/null; wait' EXIT"], house / "0.out"
        texts: list[tuple[Block, pathlib.Path]] = []
        for block in [each for each in ALL if each.page == page]:
            if "file" in block.says:
                script.append(f"cat >{block.says['file']} <<'END OF FILE'\n{block.text}END OF FILE")
            elif block.language == "text":
                texts.append((block, printed))
            elif block.language == "sh" and "not run" not in block.says:
                printed = house / f"{block.line}.out"
                ready = f"until (: </dev/tcp/127.0.0.1/{port}) 2>/dev/null; do sleep 0.1; done"
                text = re.sub("(tarvo sandbox .*)&$", rf"\1 --port {port} &\n{ready}", block.text, flags=re.M)
                script.append(f"exec >{printed} 2>&1\n" + text.replace("8484", port))
        environment = {**os.environ, "HOME": str(house), "PATH": path, "CXX": CXX}
        ended = run("bash", input="\n".join(script), cwd=house, env=environment)
        if ended.returncode:
            last = max(house.glob("*.out"), key=lambda each: int(each.stem))
            fail(f"{page}:{last.stem}", last.read_text()[-1000:])
            continue
        for block, printed in texts:
            prints(block, printed.read_text())


def prints(block: Block, printed: str) -> None:
    """Each line of the block is printed, in this order; "..." is anything."""
    lines = [line for line in block.text.split("\n") if line.strip(". ") and not line.startswith("$ ")]
    wanted = [re.escape(line).replace(r"\.\.\.", ".*") + "$" for line in lines]
    if not re.search("(?s:.*?)".join(wanted), printed, re.M):
        fail(block, f"what is printed is\n{printed}")


def shape(value: typing.Any) -> typing.Any:
    if isinstance(value, dict):
        return {key: shape(each) for key, each in value.items()}
    return [shape(value[0])] if isinstance(value, list) and value else type(value).__name__


def truth(block: Block, value: typing.Any) -> None:
    """Of the command before it."""
    command = next(each.text for each in of("sh") if each.page == block.page and "--truth" in each.text)
    run("bash", "-ec", command.replace("tarvo ", f"{TARVO} "))
    real = json.loads((WORK / "truth.json").read_text())
    if shape(value) != shape(real) or value["stays"][0] != real["stays"][0] or value["trips"][0] != real["trips"][0]:
        fail(block, f"really it is {json.dumps(real)[:600]}")


def faults(block: Block, value: typing.Any) -> None:
    (WORK / "rules.json").write_text(json.dumps(value))
    serving = run("timeout", "2", TARVO, "sandbox", "--port", "0", "--data", "data", "--faults", "rules.json")
    if "page " not in serving.stdout:
        fail(block, serving.stdout)


def positions(block: Block, value: typing.Any) -> None:
    os.environ["TARVO_SANDBOX_EXCHANGES"] = str(WORK / "exchanges")
    (WORK / "exchanges").mkdir()
    replay(WORK / "world", "--home", "posted")
    said = [json.loads(line) for file in (WORK / "exchanges").iterdir() for line in file.read_text().splitlines()]
    body = next(each["body"] for each in said if each["target"].endswith("/positions"))
    body = json.loads(body) if isinstance(body, str) else body
    if list(value[0]) != list(body[0]) or shape(value[0]) != shape(body[0]):
        fail(block, f"posted is {body[0]}")


def home(block: Block, _: typing.Any) -> None:
    """The files of a home in which all has happened are among those that are listed, and the other way round."""
    day = WORK / "world"
    (day / "push.jsonl").write_text('{"at": 600, "event": "push", "payload": {"messageFrom": "tarvo"}}')  # log files on
    replay(day, "--home", "day", "--mode", "12", "--script", "push.jsonl", "--sandbox-data", "backend.json")
    real = {str(path.relative_to(day / "day")) for path in (day / "day").rglob("*") if path.is_file()}
    real -= {name for name in real if re.search(r"-(wal|shm)$|^sandbox", name)}
    listed = {re.sub(r"<\w+>|\d{4}-\d\d-\d\d", "*", line.split()[0]) for line in block.text.splitlines()}
    for name in real:
        if not any(pathlib.PurePath(name).match(pattern) for pattern in listed):
            fail(block, f"{name} is not listed")
    for pattern in listed - {"Library/erasing", "Library/Transfers/*.jsonl"}:
        if not list((day / "day").glob(pattern)):
            fail(block, f"{pattern} is not there: {sorted(real)}")


def log(block: Block, _: typing.Any) -> None:
    """The file begins as the block does, up to the first line's own words."""
    file = next(iter((WORK / "world/day/Documents").glob("TarvoLog_*")))
    lines = [line.replace(r"\r", "\r").replace(r"\n", "\n") for line in block.text.splitlines()]
    wanted = re.sub(r"\\d|\d", r"\\d", re.escape("".join(lines).removesuffix("DEBUG]:message\n")))
    if not re.match(wanted.replace("<user>", "[0-9a-f-]+"), file.read_bytes().decode()):
        fail(block, file.read_text()[:400])


def demo(block: Block, _: typing.Any) -> None:
    """The script itself, with a program that is built already."""
    folder = WORK / "demo"
    (folder / "scripts").mkdir(parents=True)
    (folder / "build/release/bin").mkdir(parents=True)
    (folder / "build/release/bin/tarvo").symlink_to(TARVO)
    (folder / "scripts/build.sh").write_text("install_missing() { :; }\nbuild() { :; }\n")
    shutil.copy(SOURCE / "demo", folder)
    ended = run(folder / "demo", cwd=folder, env={**os.environ, "TMPDIR": str(WORK)})
    varies = r"\b127.0.0.1:\d+|tarvo-demo-\w+|\d+ fixes/s|\d+ predictions.*|/tmp"
    block.text = re.sub(varies, "...", block.text)
    prints(block, ended.stdout)


def toml(block: Block, _: typing.Any) -> None:
    (WORK / "unit.toml").write_text(block.text)
    (WORK / "secret").write_text("secret")
    try:
        ended = run(TARVO, "run", "--config", "unit.toml", "--home", "unit", "--api-secret-file", "secret", timeout=3)
        fail(block, ended.stdout)
    except subprocess.TimeoutExpired:
        pass


def ini(block: Block, _: typing.Any) -> None:
    (WORK / "tarvo.service.d").mkdir()
    shutil.copy(BUILD / "tarvo.service", WORK)
    (WORK / "tarvo.service.d/drop-in.conf").write_text(block.text)
    if shutil.which("systemd-analyze"):
        told = run("systemd-analyze", "verify", "./tarvo.service").stdout
        if "drop-in.conf" in told:
            fail(block, told)


def data() -> None:
    world()
    for block in of("json", "jsonl", "text", "toml", "ini"):
        try:
            value = json.loads(re.sub(r",\s*\.\.\.", "", block.text)) if block.language == "json" else None
            check = block.says.get("check", block.language)
            if check in CHECKS:
                CHECKS[check](block, value)
        except (OSError, ValueError, LookupError, StopIteration, subprocess.TimeoutExpired) as error:
            fail(block, repr(error))


def sql() -> None:
    """On a store in PostgreSQL in which a trip of that day has been kept."""
    pipe = subprocess.PIPE
    server = subprocess.Popen([SOURCE / "tests/support/postgres.sh"], stdin=pipe, stdout=pipe, text=True)
    assert server.stdin and server.stdout
    socket_folder = server.stdout.readline().strip()
    if not socket_folder:
        print("skipped: PostgreSQL is not installed")
        sys.exit(server.wait())
    url = f"postgresql:///postgres?host={socket_folder}&user=postgres"
    with subprocess.Popen([TARVO, "sandbox", "--port", "0", "--store", url], stdout=pipe, text=True) as sandbox:
        assert sandbox.stdout
        address = sandbox.stdout.readline().split()[-1]
        options = "--api-key demo-key --api-secret demo-secret --home posted".split()
        played = run(TARVO, "replay", world() / "trip.gpx", "--backend", address, *options)
        for block in of("sql"):
            done = run("psql", "-v", "ON_ERROR_STOP=1", "-d", url, "-c", block.text)
            if played.returncode or done.returncode:
                fail(block, played.stdout + done.stdout)
        sandbox.terminate()
    server.stdin.close()
    server.wait()


CHECKS = {check.__name__: check for check in (demo, faults, home, ini, log, positions, toml, truth)}

try:
    {each.__name__: each for each in (labels, cpp, shell, in_order, data, sql)}[PART]()
finally:
    shutil.rmtree(WORK, ignore_errors=True)
print("\n".join(failures) or f"{len(ALL)} blocks of the manual: {PART}")
sys.exit(1 if failures else 0)
