"""What the site has beyond docs/: the pages of the root, and the reference that build.sh has made. Called by mkdocs.

The pages stay readable where a source tree is shown: there their links lead to files of the tree, here to pages.
"""

import json
import os
import pathlib
import re
import shutil

from mkdocs.structure.files import File

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = ("README.md", "CHANGELOG.md", "CONTRIBUTING.md", "SECURITY.md")

# Folders of public headers, and where their reference is.
HEADERS = {"include/tarvo": "cpp", "bindings/c/include/tarvo-c": "c", "bindings/objc/include/tarvo-objc": "objc"}


def on_files(files, config):
    """Adds the files that do not lie in docs/."""

    def add(path, folder):
        files.append(File(path, str(folder), config["site_dir"], config["use_directory_urls"]))

    for page in PAGES:
        add(page, ROOT)
    made = os.environ.get("MANUAL_PAGES")
    for path in sorted(pathlib.Path(made).rglob("*")) if made else ():
        if path.is_file():
            add(path.relative_to(made).as_posix(), made)
    return files


def target(path):
    """The page of the site that stands for a file of the tree; the path itself where there is none."""
    if path.startswith("docs/"):
        return path[len("docs/") :]
    if path == "bindings/python/tarvo":
        return "reference/python.md"
    for folder, language in HEADERS.items():
        if path == folder:
            return f"reference/{language}/index.html"
        if path.startswith(folder + "/") and path.endswith(".h"):
            # As doxygen names the page of a file.
            return f"reference/{language}/{pathlib.PurePath(path).stem.replace('_', '__')}_8h.html"
    return path


def titles(nav):
    """The pages of a navigation, and what it calls them."""
    for title, entry in (item for entry in nav for item in entry.items()):
        if isinstance(entry, list):
            yield from titles(entry)
        else:
            yield entry, title


def on_page_markdown(markdown, page, config, files):
    """Links to files of the tree lead to pages, and those that only name a page have its title."""
    called = dict(titles(config["nav"]))
    markdown = re.sub(r"\[(?:docs/)?([\w-]+\.md)\](?=\()", lambda text: f"[{called.get(text[1], text[1])}]", markdown)
    up = "" if page.file.src_path in PAGES else r"\.\./"
    return re.sub(
        rf"\]\({up}((?:docs|include|bindings)/[^)#\s]*|[A-Z]+\.md)(?=[)#])",
        lambda link: "](" + target(link[1].rstrip("/")),
        markdown,
    )


def on_post_build(config):
    """Lets the search work from a disk too, and leaves out what nobody loads."""
    site = pathlib.Path(config["site_dir"])
    worker = next((site / "assets/javascripts/workers").glob("search.*.min.js")).read_text(encoding="utf-8")
    index = (site / "search/search_index.json").read_text(encoding="utf-8")
    (site / "search/local.js").write_text(
        f"__search = {{ index: Promise.resolve({index}),\n"
        f"  worker: URL.createObjectURL(new Blob([{json.dumps(worker)}], {{ type: 'text/javascript' }})) }};\n",
        encoding="utf-8",
    )
    for unused in (*site.rglob("*.map"), *site.glob("sitemap.xml*")):
        unused.unlink()
    shutil.rmtree(site / "assets/javascripts/lunr")  # other languages
