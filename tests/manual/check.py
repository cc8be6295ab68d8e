"""What a reader of the built manual would stumble over. usage: check.py SITE_DIR SOURCE_DIR; tells each fault, or how
much there is of the manual.
"""

import pathlib
import re
import sys
from html.parser import HTMLParser
from urllib.parse import unquote, urlsplit

# What a browser fetches by itself; a link that somebody follows may lead anywhere.
LOADED = {"img": "src", "script": "src", "link": "href", "iframe": "src", "source": "src", "object": "data", "embed": "src"}
FETCHED_BY_CSS = re.compile(r"(?:url\(|@import)\s*['\"]?([^'\")\s;]+)")


class Page(HTMLParser):
    """The names, links and loaded things of one page."""

    def __init__(self, text):
        super().__init__()
        self.names, self.links, self.loaded = set(), set(), set(FETCHED_BY_CSS.findall("".join(
            re.findall(r"<style.*?</style>|style=\"[^\"]*\"", text, re.S))))
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        given = dict(attributes)
        self.names.update(given[key] for key in ("id", "name") if given.get(key))
        if tag == "a" and given.get("href"):
            self.links.add(given["href"])
        if given.get(LOADED.get(tag)) and given.get("rel") not in ("canonical", "prev", "next"):
            self.loaded.add(given[LOADED[tag]])


def faults_of(site, source):
    pages = {path: Page(path.read_text(encoding="utf-8")) for path in sorted(site.rglob("*.html"))}
    loaded = {(path, address) for path, page in pages.items() for address in page.loaded}
    for style in site.rglob("*.css"):
        loaded |= {(style, address) for address in FETCHED_BY_CSS.findall(style.read_text(encoding="utf-8"))}
    for path, address in sorted(loaded):
        if re.match(r"(?:[a-z]+:)?//", address):
            yield f"{path.relative_to(site)} loads {address}"

    links = {(path, address) for path, page in pages.items() for address in page.links}
    for path, address in sorted(links | loaded):
        parts = urlsplit(address)
        if parts.scheme or parts.netloc or path.name == "404.html":  # that page is shown for any address
            continue
        target = (path.parent / unquote(parts.path)).resolve() if parts.path else path
        if not target.is_file():
            yield f"{path.relative_to(site)} leads to {address}, which is not there"
        elif parts.fragment and target.suffix == ".html" and unquote(parts.fragment) not in pages[target].names | {"top"}:
            yield f"{path.relative_to(site)} leads to {address}, and the page has no such place"

    navigation = re.findall(r"<nav.*?</nav>", (site / "index.html").read_text(encoding="utf-8"), re.S)
    for page in sorted((source / "docs").rglob("*.md")):
        if f'href="{page.relative_to(source / "docs").with_suffix(".html")}"' not in "".join(navigation):
            yield f"docs/{page.name} is not in the navigation of mkdocs.yml"

    for language, folder in (("cpp", "include"), ("c", "bindings/c/include"), ("objc", "bindings/objc/include")):
        headers = [path.name for path in (source / folder).rglob("*.h")]
        for header in headers + (["Version.h"] if language == "cpp" else []):
            if not (site / "reference" / language / f"{header[:-2].replace('_', '__')}_8h.html").is_file():
                yield f"{header} has no page in the reference"
        # An enumerator without a comment is bold here, and doxygen says nothing of it.
        for path in sorted((site / "reference" / language).glob("*.html")):
            for listed in re.findall(r'enum &#160;.*?\{(.*?)\}', path.read_text(encoding="utf-8"), re.S):
                for name in re.findall(r"<b>(\w+)</b>", listed):
                    yield f"{path.relative_to(site)}: {name} is not documented"


site, source = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
faults = list(faults_of(site, source))
print("\n".join(faults) or f"{len(list(site.rglob('*.html')))} pages hold together")
sys.exit(bool(faults))
