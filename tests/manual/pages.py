"""The fenced blocks of the manual's pages, with what hidden comments before them say."""

import dataclasses
import pathlib
import re
import typing

SAYS = r"<!-- ([\w ]+): (.*?) -->"


@dataclasses.dataclass
class Block:
    page: str
    line: int  # of its first line
    language: str
    text: str
    says: dict[str, str]

    def __str__(self) -> str:
        return f"{self.page}:{self.line}"

    def is_run_in_order(self) -> bool:
        return "in order" in self.says


def blocks(source: pathlib.Path) -> typing.Iterator[Block]:
    """Of every page. One with a comment `in order` is a session: each of its blocks says so too."""
    for page in [*source.glob("*.md"), *source.glob("docs/**/*.md")]:
        lines = page.read_text().split("\n")
        before: list[str] = []
        of_page: dict[str, str] = {}
        number = 0
        while number < len(lines):
            line = lines[number]
            if fence := re.match(r" *```(.*)", line):
                end = next(i for i in range(number + 1, len(lines)) if lines[i].strip() == "```")
                says = dict(re.findall(SAYS, "\n".join(before), re.S))
                text = "\n".join(lines[number + 1 : end]) + "\n"
                yield Block(str(page.relative_to(source)), number + 2, fence[1], text, {**of_page, **says})
                number, before = end, []
            elif line.startswith("    ") and not "\n".join(before).strip():
                yield Block(str(page.relative_to(source)), number + 1, "indented", line, {})
            elif line and not line.startswith("<!--") and not (before and "-->" not in before[-1]):
                before = []
            else:
                if line.startswith("<!-- in order:"):
                    of_page = dict(re.findall(SAYS, line))
                before.append(line)
            number += 1
