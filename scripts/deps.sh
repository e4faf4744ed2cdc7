#!/usr/bin/env bash
# Installs what the build, the tests and the demo need, and nothing when all is there.
# Usage: scripts/deps.sh [host|armhf|bench|fuzz|docs]...
set -euo pipefail

want=(cmake make g++ pkg-config file googletest uuid-dev libboost-dev)
for kind in "$@"; do
  case "$kind" in
    host) ;;
    armhf) want+=(g++-arm-linux-gnueabihf qemu-user) ;;
    bench) want+=(libbenchmark-dev libspdlog-dev libuv1-dev) ;;
    fuzz) want+=(clang libclang-rt-14-dev) ;;
    docs) want+=(doxygen) ;;
    *) echo "deps.sh: unknown set '$kind'" >&2; exit 2 ;;
  esac
done

missing=()
for pkg in "${want[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$pkg")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq || echo "apt-get update reported a problem; trying the install anyway" >&2
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
