#!/usr/bin/env bash
# Builds the manual from docs/ and from the comments of the public headers and of the Python package: static pages that
# load nothing from anywhere. usage: build.sh SOURCE_DIR BUILD_DIR OUTPUT_DIR
# BUILD_DIR holds include/tarvo/Version.h. Fails at a dead link of the guide and at a public entity without a comment.
# Needs mkdocs with the theme "material", doxygen and python3. The same sources give the same bytes.
set -euo pipefail
source=$(realpath "$1") build=$(realpath "$2") output=$(realpath -m "$3")
here=$source/cmake/manual
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$source/include" "$source/bindings/c/include" "$source/bindings/objc/include" "$work/"
cp "$build/include/tarvo/Version.h" "$work/include/tarvo/"
MANUAL_VERSION=$(sed -nE 's/.*TARVO_VERSION_STRING "(.*)"/\1/p' "$work/include/tarvo/Version.h")
export MANUAL_VERSION MANUAL_LAYOUT=$work/layout.xml MANUAL_STRIP=$work/include
doxygen -l "$MANUAL_LAYOUT"
sed -i 's|<navindex>|&<tab type="user" url="../../reference.html" title="Manual"/>|' "$MANUAL_LAYOUT"

reference() { # FOLDER HEADERS LANGUAGE PARSER
  mkdir -p "$work/pages/reference/$1"
  MANUAL_LANGUAGE=$3 MANUAL_PARSER=$4 MANUAL_INPUT="$work/include/$2 $here/$1.md" MANUAL_MAIN=$here/$1.md \
    MANUAL_OUTPUT=$work/pages/reference/$1 MANUAL_IS_C=$([ "$4" = C ] && echo YES || echo NO) doxygen "$here/Doxyfile"
}
reference cpp tarvo C++ C++
reference c tarvo-c C C
reference objc tarvo-objc Objective-C Objective-C
/usr/bin/env python3 -B "$here/python_reference.py" "$source/bindings/python/tarvo" >"$work/pages/reference/python.md"

# The interpreter that mkdocs itself was installed for reads the hook.
cd "$source"
PYTHONDONTWRITEBYTECODE=1 MANUAL_PAGES=$work/pages mkdocs build --quiet --strict --clean --site-dir "$output"
find "$output" -name sitemap.xml\* -delete  # tells a search engine what there is, and has no address to tell
