#!/usr/bin/env bash
# Packs the device test bundle from a built armhf build folder: the test suites, the examples,
# the shared library and run-tests.sh, in one folder oxa-tests-armhf/ inside OUT.
# Usage: scripts/bundle.sh BUILD_DIR OUT.tar.gz
set -euo pipefail
build=$(realpath "${1:?usage: bundle.sh BUILD_DIR OUT.tar.gz}")
out=$(realpath -m "${2:?usage: bundle.sh BUILD_DIR OUT.tar.gz}")
root=$(cd "$(dirname "$0")/.." && pwd)
stage="$build/bundle"
rm -rf "$stage"
mkdir -p "$stage/oxa-tests-armhf"
for component in runtime tests; do
  cmake --install "$build" --strip --component "$component" --prefix "$stage/oxa-tests-armhf" >/dev/null
done
for part in bin examples; do
  [ -n "$(ls -A "$stage/oxa-tests-armhf/$part" 2>/dev/null)" ] ||
    { echo "bundle: $build has no $part (build it with tests and examples)" >&2; exit 1; }
done
install -m 755 "$root/scripts/run-tests.sh" "$stage/oxa-tests-armhf/run-tests.sh"
mkdir -p "$(dirname "$out")"
tar -C "$stage" -czf "$out" oxa-tests-armhf
echo "bundle: $out"
