#!/usr/bin/env bash
# Runs the example tour from a build folder: scripts/demo.sh BUILD_DIR
set -euo pipefail
build=${1:?usage: demo.sh BUILD_DIR}
tour=(time_tour locks threads_and_trace host_report loopback_events pool_timer_alarms)
for name in "${tour[@]}"; do
  echo
  echo "======== $name"
  "$build/examples/$name"
done
