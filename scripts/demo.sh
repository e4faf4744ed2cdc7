#!/usr/bin/env bash
# Runs the example tour from a build folder: scripts/demo.sh BUILD_DIR
set -euo pipefail
build=${1:?usage: demo.sh BUILD_DIR}
tour=(time_tour locks threads_and_trace host_report loopback_events pool_timer_alarms files_and_log
      work_pipeline memory_pools strings_and_tables)
for name in "${tour[@]}"; do
  echo
  echo "======== $name"
  "$build/examples/$name"
done
# Echo over completion queues on loopback: 16 connections, 4 KiB messages, 3 seconds.
echo
echo "======== echo: oxa_echo selftest 16 4096 3"
"$build/examples/echo/oxa_echo" selftest 16 4096 3
