#!/usr/bin/env bash
# Builds the manual from docs/ and from the comments of the public headers and of the Python package: static pages that
# load nothing from anywhere. usage: build.sh SOURCE_DIR BUILD_DIR OUTPUT_DIR
# BUILD_DIR holds include/tarvo/Version.h. Fails at a dead link of the guide and at a public entity without a comment,
# and tells all of them. Needs mkdocs with its theme "material", doxygen and python3. The same sources give the same
# bytes, wherever they lie.
set -euo pipefail
source=$(realpath "$1") build=$(realpath "$2") output=$(realpath -m "$3")
here=$source/cmake/manual
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
cp -r "$source/include" "$source/bindings/c/include" "$source/bindings/objc/include" "$work/"
cp "$build/include/tarvo/Version.h" "$work/include/tarvo/"
MANUAL_VERSION=$(sed -nE 's/.*TARVO_VERSION_STRING "(.*)"/\1/p' "$work/include/tarvo/Version.h")
export MANUAL_VERSION MANUAL_LAYOUT=$work/layout.xml MANUAL_STRIP=$work/include
doxygen -l "$MANUAL_LAYOUT"
# The way back, and what a class or a file is for before the list of its members.
sed -i 's|<navindex>|&<tab type="user" url="../../reference.html" title="Manual"/>|; /<detaileddescription /d
  s|<briefdescription .*/>|<detaileddescription title=""/>|' "$MANUAL_LAYOUT"

reference() { # FOLDER HEADERS LANGUAGE PARSER
  local pages=$work/pages/reference/$1 page name
  mkdir -p "$pages"
  MANUAL_LANGUAGE=$3 MANUAL_PARSER=$4 MANUAL_INPUT="$work/include/$2 $here/$1.dox" MANUAL_OUTPUT=$pages \
    MANUAL_IS_C=$([ "$4" = C ] && echo YES || echo NO) doxygen "$here/Doxyfile" || failed=1
  # Pages of folders are named by where they lay; those above the headers nobody needs.
  for page in "$pages"/dir_*.html; do
    name=$(basename "$page" .html)
    if grep -q "$name" "$pages/files.html"; then
      title=$(sed -nE 's|.*<div class="title">(.*) Directory Reference</div>.*|\1|p' "$page")
      grep -rl "$name" "$pages" | xargs sed -i "s/$name/dir_${title//[^a-z]/_}/g"
      mv "$page" "$pages/dir_${title//[^a-z]/_}.html"
    else
      rm "$page"
    fi
  done
}
reference cpp tarvo C++ C++
reference c tarvo-c C C
reference objc tarvo-objc Objective-C Objective-C
/usr/bin/env python3 -B "$here/python_reference.py" "$source/bindings/python/tarvo" >"$work/pages/reference/python.md" ||
  failed=1

cd "$source"
PYTHONDONTWRITEBYTECODE=1 MANUAL_PAGES=$work/pages mkdocs build --strict --clean --site-dir "$output" 2>"$work/log" ||
  { grep -v ^INFO "$work/log" >&2; failed=1; }
exit $failed
