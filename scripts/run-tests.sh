#!/bin/sh
# Runs liboxa's test suites and examples on the device, from the unpacked test bundle; needs
# only a POSIX shell (no CMake, no ctest). Every test runs in a process of its own, as under
# ctest (the suites count threads and descriptors of the whole process); each example runs
# once. Prints a line per failure and, last, one summary line "N passed, M failed (K skipped)";
# exits 0 only if nothing failed.
# Usage: ./run-tests.sh [RUNNER...]   e.g. ./run-tests.sh qemu-arm -L /usr/arm-linux-gnueabihf
# RUNNER, if given, is put in front of every program (an emulator, or a wrapper).
here=$(cd "$(dirname "$0")" && pwd)
LD_LIBRARY_PATH="$here/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export LD_LIBRARY_PATH
limit=120   # seconds for one test or example; a hang fails it instead of stopping the run
passed=0
failed=0
skipped=0
log_dir=$(mktemp -d "${TMPDIR:-/tmp}/oxa-tests.XXXXXX") || exit 2
work_dir="$log_dir/work"   # examples that write files write them here
mkdir -p "$work_dir"

run() {  # name, program, arguments...
  name=$1
  shift
  log="$log_dir/$(echo "$name" | tr / _).log"
  if command -v timeout >/dev/null 2>&1; then
    (cd "$work_dir" && timeout "$limit" "$@") >"$log" 2>&1
  else
    (cd "$work_dir" && "$@") >"$log" 2>&1
  fi
  rc=$?
  if [ "$rc" -eq 0 ]; then
    passed=$((passed + 1))
    grep -q '^\[  SKIPPED \]' "$log" && skipped=$((skipped + 1))
    rm -f "$log"
  else
    failed=$((failed + 1))
    echo "FAIL $name (exit $rc); last lines of $log:"
    tail -n 30 "$log" | sed 's/^/    /'
  fi
}

for suite in "$here"/bin/*_tests; do
  [ -x "$suite" ] || continue
  echo "running $(basename "$suite")"
  # "Suite." lines name a suite, indented lines its tests; "# ..." notes follow parameters.
  tests=$("$@" "$suite" --gtest_list_tests 2>/dev/null | awk '/^[^ ].*\.$/ || /^[^ ][^ ]*\. / { s = $1 }
                                                 /^  / { print s $1 }')
  if [ -z "$tests" ]; then
    failed=$((failed + 1))
    echo "FAIL $(basename "$suite"): lists no tests"
    continue
  fi
  for test in $tests; do
    run "$test" "$@" "$suite" --gtest_filter="$test"
  done
done
echo "running the examples"
for example in "$here"/examples/*; do
  [ -x "$example" ] || continue
  name=$(basename "$example")
  case "$name" in
    oxa_echo)  # loopback echo with every byte compared: small and chunked messages
      run echo_small "$@" "$example" selftest 16 64 1 2
      run echo_chunked "$@" "$example" selftest 8 40000 1 2 ;;
    *) run "$name" "$@" "$example" ;;
  esac
done

[ "$failed" -eq 0 ] && rm -rf "$log_dir"
echo "$passed passed, $failed failed ($skipped skipped)"
[ "$failed" -eq 0 ]
