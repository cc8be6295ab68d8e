"""Writes the reference of the Python package, one page of Markdown, from its sources alone: nothing is imported.

usage: python_reference.py PACKAGE_DIR. Fails, naming it, at a public class, function or property without a docstring.
"""

import ast
import pathlib
import sys
import textwrap

# What Python itself calls, and the language's own rules tell; a docstring of it is printed.
SPOKEN_FOR = {"__init__", "__enter__", "__exit__", "__aenter__", "__aexit__", "__aiter__", "__anext__", "__repr__"}

undocumented = []


def is_public(name):
    return not name.startswith("_") or (name.startswith("__") and name not in SPOKEN_FOR)


def decorators(node):
    return {ast.unparse(decorator).split("(")[0] for decorator in node.decorator_list}


def prose(node):
    return ast.get_docstring(node) or ""


def signature(function, name):
    """As a caller sees it: what a method is called on is left out."""
    arguments = function.args
    for some in (arguments.posonlyargs, arguments.args):
        if some and some[0].arg in ("self", "cls"):
            del some[0]
            break
    result = f" -> {ast.unparse(function.returns)}" if function.returns else ""
    line = f"{'async ' if isinstance(function, ast.AsyncFunctionDef) else ''}{name}({ast.unparse(arguments)}){result}"
    if len(line) <= 100:
        return line
    several = ast.unparse(arguments)
    each = "".join(f"    {part},\n" for part in split(several))
    return f"{name}(\n{each}){result}"


def split(arguments):
    """The arguments apart, at commas that no bracket holds."""
    depth, start = 0, 0
    for at, character in enumerate(arguments):
        depth += (character in "([{") - (character in ")]}")
        if character == "," and depth == 0:
            yield arguments[start:at].strip()
            start = at + 1
    yield arguments[start:].strip()


def code(text):
    return f"```python\n{text}\n```\n"


def member(node, owner):
    """A method or property: its signature and what it says."""
    marks = decorators(node)
    if not is_public(node.name) or marks & {"overload"} or any(mark.endswith(".setter") for mark in marks):
        return ""
    said = prose(node)
    if not said and node.name.startswith("__"):
        return ""
    if not said:
        undocumented.append(f"{owner}.{node.name}")
    if "property" in marks:
        shown = f"{node.name}: {ast.unparse(node.returns)}"
    else:
        shown = signature(node, node.name)
    return f"#### `{owner}.{node.name}`\n\n{code(shown)}\n{said}\n\n"


def field(node):
    """The public name that a line of a class or of its __init__ gives, with its type; None where it gives none."""
    if not isinstance(node, (ast.Assign, ast.AnnAssign)):
        return None
    target = node.target if isinstance(node, ast.AnnAssign) else node.targets[0]
    name = ast.unparse(target).removeprefix("self.")
    if name.startswith("_"):
        return None
    of_self = isinstance(target, ast.Attribute)
    value = f" = {ast.unparse(node.value)}" if isinstance(node.value, ast.Constant) and not of_self else ""
    return f"{name}: {ast.unparse(node.annotation)}{value}" if isinstance(node, ast.AnnAssign) else name


def fields(body):
    """The public names of a record, an enumeration or an __init__, each with the text below it."""
    lines = []
    for node, below in zip(body, [*body[1:], None]):
        shown = field(node)
        if shown is None:
            continue
        lines.append(shown)
        if isinstance(below, ast.Expr) and isinstance(below.value, ast.Constant) and isinstance(below.value.value, str):
            said = " ".join(below.value.value.split())
            lines.extend(textwrap.wrap(said, 96, initial_indent="    # ", subsequent_indent="    # "))
    return code("\n".join(lines)) + "\n" if lines else ""


def with_bases(node, known):
    """The class's own members, then those of bases that are not public."""
    yield from node.body
    for base in node.bases:
        name = ast.unparse(base).split("[")[0]
        if name in known and name not in public:
            yield from with_bases(known[name], known)


def entity(name, node, known):
    said = prose(node) if isinstance(node, (ast.ClassDef, ast.FunctionDef)) else ""
    text = f"### {name}\n\n"
    if isinstance(node, ast.Assign):  # a name for several types
        return text + code(f"{name} = {ast.unparse(node.value)}") + "\n"
    if not said:
        undocumented.append(name)
    if isinstance(node, ast.FunctionDef):
        return text + code(signature(node, name)) + f"\n{said}\n\n"
    bases = [ast.unparse(base) for base in node.bases]
    bases = [base for base in bases if base.split("[")[0] in public or base.split("[")[0] not in known]
    text += code(f"class {name}({', '.join(bases)})" if bases else f"class {name}") + f"\n{said}\n\n"
    text += fields(node.body)
    for one in node.body:
        if isinstance(one, ast.FunctionDef) and one.name == "__init__":
            if one.args.kwonlyargs:  # made by the host, and not by the SDK
                one.returns = None
                text += code(signature(one, name)) + "\n"
            text += fields([line for line in one.body if "self." in ast.unparse(line) or isinstance(line, ast.Expr)])
    for one in with_bases(node, known):
        if isinstance(one, (ast.FunctionDef, ast.AsyncFunctionDef)):
            text += member(one, name)
    return text


package = pathlib.Path(sys.argv[1])
init = ast.parse((package / "__init__.py").read_text(encoding="utf-8"))
public, known = [], {}
for statement in init.body:
    if isinstance(statement, ast.Assign) and ast.unparse(statement.targets[0]) == "__all__":
        public = ast.literal_eval(statement.value)
for source in sorted(package.glob("_*.py")):
    for statement in ast.parse(source.read_text(encoding="utf-8")).body:
        if isinstance(statement, (ast.ClassDef, ast.FunctionDef)):
            known[statement.name] = statement
        elif isinstance(statement, ast.Assign) and isinstance(statement.targets[0], ast.Name):
            known.setdefault(statement.targets[0].id, statement)

kinds = {"Classes": [], "Errors": [], "Functions": []}
for name in public:
    node = known[name]
    kind = "Functions" if isinstance(node, ast.FunctionDef) else "Errors" if name.endswith("Error") else "Classes"
    kinds[kind].append(entity(name, node, known))
print(f"# The Python package\n\n{prose(init).splitlines()[0]}\n")
for kind, texts in kinds.items():
    print(f"## {kind}\n\n{''.join(texts)}")
if undocumented:
    sys.exit("without a docstring: " + ", ".join(undocumented))
