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

    def is_in_order(self) -> bool:
        """Whether it is a part of its page's session: what is run there, what that prints, and the files it uses."""
        return "in order" in self.says and (self.language in ("sh", "text") or "file" in self.says)


def blocks(source: pathlib.Path) -> typing.Iterator[Block]:
    """Of every page. One with a comment `in order` is a session: each of its blocks says so too."""
    for path in [*source.glob("*.md"), *source.glob("docs/**/*.md")]:
        page, lines = str(path.relative_to(source)), path.read_text().split("\n")
        of_page = dict(re.findall("^<!-- (in order): (.*) -->$", "\n".join(lines), re.M))
        begins = number = 0  # of the text since the last block
        while number < len(lines):
            if fence := re.match(r" *```(.*)", lines[number]):
                end = next(i for i in range(number + 1, len(lines)) if lines[i].strip() == "```")
                before = re.search(r"(<!-- ((?!-->).)* -->\s*)*$", "\n".join(lines[begins:number]), re.S)
                says = dict(re.findall(SAYS, before[0] if before else "", re.S))
                yield Block(page, number + 2, fence[1], "\n".join(lines[number + 1 : end]) + "\n", {**of_page, **says})
                begins = number = end
            elif lines[number].startswith("    ") and not lines[number - 1].strip():
                yield Block(page, number + 1, "indented", lines[number], {})
            number += 1
