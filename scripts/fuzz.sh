#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and UndefinedBehaviorSanitizer) and
# runs each for SECONDS seconds from its seed corpus in fuzz/corpus/. A crash, a sanitizer
# report, a leak or a failed model check stops the run with a failure; the input that did it
# is left in the build folder (crash-*, leak-*, timeout-*).
# Usage: scripts/fuzz.sh SECONDS
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:?usage: fuzz.sh SECONDS}
build=${BUILD:-build}/fuzz
jobs=${JOBS:-$(nproc)}

echo "==== fuzz: configure and build"
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOXA_FUZZ=ON \
  -DBUILD_TESTING=OFF -DOXA_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j "$jobs"

export LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
root=$PWD
for source in fuzz/*_fuzz.cpp; do
  name=$(basename "$source" .cpp)
  work="$build/work/$name"   # new inputs go here, so the seeds in the repository stay as they are
  mkdir -p "$work"
  echo "==== fuzz: $name for ${seconds}s"
  if ! (cd "$build" && "./fuzz/$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
          -print_final_stats=1 "work/$name" "$root/fuzz/corpus/$name" >"work/$name.log" 2>&1); then
    cat "$work.log"
    echo "==== fuzz: $name FAILED (the input is saved in $build)" >&2
    exit 1
  fi
  grep -E "^(Done|stat::number_of_executed_units|stat::new_units_added)" "$work.log" || true
done
echo "==== fuzz: every target ran clean"
