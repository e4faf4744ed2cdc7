#!/usr/bin/env bash
# Builds and runs the test suite: on the host, on armhf under qemu-arm, on the host under
# AddressSanitizer and UndefinedBehaviorSanitizer, and on the host under ThreadSanitizer, then
# runs every libFuzzer target briefly. Warnings are errors throughout.
# Usage: scripts/test.sh all|host|armhf|asan|tsan|fuzz
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD:-build}
jobs=${JOBS:-$(nproc)}
what=${1:-all}

run_suite() {  # name, extra cmake arguments...
  local name=$1; shift
  echo "==== $name: configure and build"
  cmake -S . -B "$build/$name" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOXA_WERROR=ON "$@" >/dev/null
  cmake --build "$build/$name" -j "$jobs"
  echo "==== $name: test"
  (cd "$build/$name" && ctest --output-on-failure -j "$((jobs * 2))" --timeout 120)
}

if [[ $what == all || $what == host ]]; then
  run_suite host
fi
if [[ $what == all || $what == armhf ]]; then
  scripts/armhf-sysroot.sh "$build/armhf-sysroot"
  run_suite armhf -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
    -DOXA_ARMHF_SYSROOT="$PWD/$build/armhf-sysroot" -DOXA_BUILD_EXAMPLES=OFF
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
