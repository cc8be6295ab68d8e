"""A browser reads the manual from a disk: a search finds, nothing is asked of a network, nothing is complained of.
usage: look.py SITE_DIR; 77 without a browser.
"""

import pathlib
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "browser"))
import browser  # noqa: E402

# A page, when its search is ready, how a reader searches, and what is found.
READERS = (
    ("index.html", "document.querySelector('.md-search-result__meta')?.innerText.startsWith('Type')",
     "document.querySelector('.md-search__input').focus(); document.execCommand('insertText', false, 'acknowledged')",
     "[...document.querySelectorAll('.md-search-result__link')].some((a) => a.href.includes('delivery.html'))"),
    ("reference/cpp/classtarvo_1_1Tarvo.html", "window.searchBox && document.readyState === 'complete'",
     "searchBox.OnSearchFieldFocus(true); document.querySelector('#MSearchField').value = 'flush'; searchBox.Search()",
     "document.querySelector('#MSearchResultsWindow').style.display === 'block'"),
)

program = browser.find()
if not program:
    sys.exit(77)
with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as profile:
    page = browser.Browser(program, profile)
    try:
        for address, ready, search, found in READERS:
            page.open(f"{pathlib.Path(sys.argv[1]).resolve().as_uri()}/{address}")
            page.wait(ready)
            page.run(search)
            page.wait(found)
        asked = [address for address in page.addresses() if not address.startswith(("file:", "data:", "blob:"))]
        assert not asked, f"asked of a network: {asked}"
        assert not page.complaints(), page.complaints()
    finally:
        page.close()
