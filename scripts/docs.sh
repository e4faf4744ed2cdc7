#!/usr/bin/env bash
# Generates the HTML API reference of the public headers into OUT/html, with the README as
# the front page and one page per header (family). Doxygen's warnings (an undocumented public
# name among them) are kept in OUT/warnings.log and counted; with --strict any warning fails.
# Usage: scripts/docs.sh [--strict] OUT
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
strict=0
if [ "${1:-}" = --strict ]; then strict=1; shift; fi
out=$(realpath -m "${1:?usage: docs.sh [--strict] OUT}")
version=$(sed -n 's/^project(oxa VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
rm -rf "$out"
mkdir -p "$out"
sed -e "s|@SOURCE@|$root|g" -e "s|@OUTPUT@|$out|g" -e "s|@VERSION@|$version|g" \
  "$root/docs/Doxyfile.in" >"$out/Doxyfile"
doxygen "$out/Doxyfile"
if [ -s "$out/warnings.log" ]; then
  echo "docs: $(grep -c 'warning:' "$out/warnings.log") warnings, see $out/warnings.log" >&2
  if [ $strict -eq 1 ]; then
    cat "$out/warnings.log" >&2
    exit 1
  fi
fi
echo "docs: $out/html/index.html"
