#!/usr/bin/env bash
# Builds and runs the test suite: on the host, on armhf under qemu-arm, on the host under
# AddressSanitizer and UndefinedBehaviorSanitizer, and on the host under ThreadSanitizer, then
# runs every libFuzzer target briefly. Warnings are errors throughout. "package" builds the
# Debian packages for amd64 and armhf and the device test bundle (from the armhf build);
# "release" also checks them (and "all" does): consumers built against the unpacked amd64
# packages, the armhf packages' fields and library, and the bundle's run-tests.sh under
# qemu-arm from the unpacked tarball. "docs" builds the API reference, failing on any
# undocumented public name.
# Usage: scripts/test.sh all|host|armhf|docs|asan|tsan|fuzz|package|release
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD:-build}
jobs=${JOBS:-$(nproc)}
what=${1:-all}

build_suite() {  # name, extra cmake arguments...
  local name=$1; shift
  echo "==== $name: configure and build"
  cmake -S . -B "$build/$name" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOXA_WERROR=ON "$@" >/dev/null
  cmake --build "$build/$name" -j "$jobs"
}
run_suite() {  # name, extra cmake arguments...
  local name=$1
  build_suite "$@"
  echo "==== $name: test"
  (cd "$build/$name" && ctest --output-on-failure -j "$((jobs * 2))" --timeout 120)
}
armhf_args=(-DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
            -DOXA_ARMHF_SYSROOT="$PWD/$build/armhf-sysroot" -DOXA_BUILD_EXAMPLES=ON)

if [[ $what == all || $what == host ]]; then
  run_suite host
fi
if [[ $what == all || $what == armhf || $what == package || $what == release ]]; then
  scripts/armhf-sysroot.sh "$build/armhf-sysroot"
fi
if [[ $what == all || $what == armhf ]]; then
  run_suite armhf "${armhf_args[@]}"
fi
if [[ $what == all || $what == package || $what == release ]]; then
  # The packages come from library-only trees whose library folder is Debian's multiarch one
  # (/usr/lib/<triplet>); the bundle from the armhf suite's tree (a no-op build after it).
  package_args=(-DBUILD_TESTING=OFF -DOXA_BUILD_EXAMPLES=OFF)
  build_suite package-host "${package_args[@]}" \
    -DCMAKE_INSTALL_LIBDIR:PATH="lib/$(gcc -print-multiarch)"
  build_suite package-armhf "${armhf_args[@]}" "${package_args[@]}" \
    -DCMAKE_INSTALL_LIBDIR:PATH="lib/$(arm-linux-gnueabihf-gcc -print-multiarch)"
  build_suite armhf "${armhf_args[@]}"
  echo "==== package: Debian packages and the device test bundle in $build/packages"
  rm -rf "$build/packages"
  for arch in host armhf; do
    (cd "$build/package-$arch" && cpack -B "$PWD/../packages" >/dev/null)
  done
  rm -rf "$build/packages/_CPack_Packages"
  scripts/bundle.sh "$build/armhf" "$build/packages/oxa-tests-armhf.tar.gz"
  ls -l "$build/packages"
fi
if [[ $what == all || $what == release ]]; then
  echo "==== package: consumers against the unpacked amd64 packages"
  cmake -DSOURCE_DIR="$PWD" -DDEBS="$(ls "$PWD/$build/packages"/*_amd64.deb | tr '\n' ';')" \
    -DWORK_DIR="$PWD/$build/package-check" -P tests/install/check.cmake
  echo "==== package: every package's architecture, and the armhf library"
  for deb in "$build/packages"/*.deb; do
    arch=${deb##*_}
    fields=$(dpkg-deb -f "$deb" Package Architecture Multi-Arch | tr '\n' ' ')
    echo "$fields"
    [[ $fields == *"Architecture: ${arch%.deb} Multi-Arch: same "* ]] ||
      { echo "$deb: not an ${arch%.deb} Multi-Arch: same package" >&2; exit 1; }
  done
  dpkg-deb -x "$(ls "$build/packages"/liboxa[0-9]*_armhf.deb)" "$build/package-check/armhf"
  readelf -h "$build/package-check/armhf/usr/lib/arm-linux-gnueabihf/liboxa.so".[0-9]* | grep -q 'Machine: *ARM$' ||
    { echo "the armhf runtime package holds no ARM library in /usr/lib/arm-linux-gnueabihf" >&2; exit 1; }
  echo "==== package: the device test bundle under qemu-arm"
  rm -rf "$build/bundle-check"
  mkdir -p "$build/bundle-check"
  tar -C "$build/bundle-check" -xzf "$build/packages/oxa-tests-armhf.tar.gz"
  sysroot="$PWD/$build/armhf-sysroot"
  LD_LIBRARY_PATH="$sysroot/usr/lib/arm-linux-gnueabihf" \
    "$build/bundle-check/oxa-tests-armhf/run-tests.sh" qemu-arm -L /usr/arm-linux-gnueabihf \
    -E GCONV_PATH="$sysroot/usr/lib/arm-linux-gnueabihf/gconv"
fi
if [[ $what == all || $what == docs ]]; then
  # The API reference: a public name without documentation, or a broken reference, fails.
  echo "==== docs: the API reference"
  scripts/docs.sh --strict "$build/docs"
fi
if [[ $what == all || $what == asan ]]; then
  # The suppressions file names each deliberate leak of the library with its reason.
  export LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp:print_suppressions=0"
  export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  run_suite asan -DOXA_SANITIZE=ON -DOXA_BUILD_EXAMPLES=OFF
fi
if [[ $what == all || $what == tsan ]]; then
  # Every report fails the test; the suppressions file names each accepted one with its reason.
  export TSAN_OPTIONS="suppressions=$PWD/tests/tsan.supp:halt_on_error=1:second_deadlock_stack=1"
  run_suite tsan -DOXA_TSAN=ON -DOXA_BUILD_EXAMPLES=OFF
fi
if [[ $what == all || $what == fuzz ]]; then
  # Each libFuzzer target for about ten seconds: a crash or a model mismatch fails the run.
  scripts/fuzz.sh "${FUZZ_SECONDS:-10}"
fi
