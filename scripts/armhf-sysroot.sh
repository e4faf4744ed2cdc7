#!/usr/bin/env bash
# Unpacks Debian's armhf libuuid (runtime and headers) into DIR for the cross build, and
# glibc's armhf character-set modules (gconv, for iconv under qemu-arm; only that folder is
# taken from libc6, so the cross toolchain's own C library stays the one that runs).
# The packages are downloaded with armhf package lists kept in a folder of their own, so
# the host's dpkg and apt state are never touched and nothing is installed multiarch.
# Usage: scripts/armhf-sysroot.sh DIR
set -euo pipefail
dest=$(realpath -m "${1:?usage: armhf-sysroot.sh DIR}")
packages=(libuuid1 uuid-dev libc6)
gconv=usr/lib/arm-linux-gnueabihf/gconv
# The stamp names the packages, so a sysroot made from an older list is made again.
[ "$(cat "$dest/.complete" 2>/dev/null)" = "${packages[*]}" ] && exit 0

state="$dest.apt"
mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$state/debs"
apt_opts=(-oAPT::Architecture=armhf -oAPT::Architectures=armhf
          -oDir::State::Lists="$state/lists" -oDir::Cache="$state/cache"
          -oDebug::NoLocking=1 -oAPT::Sandbox::User=root)

# A mirror that is syncing can fail one index while the others are fine; the download
# below is what decides whether we have what we need.
apt-get "${apt_opts[@]}" update -qq || echo "armhf apt-get update reported a problem; continuing" >&2
(cd "$state/debs" && apt-get "${apt_opts[@]}" download "${packages[@]/%/:armhf}")

rm -rf "$dest"
mkdir -p "$dest"
for deb in "$state/debs"/*.deb; do
  case "$(basename "$deb")" in
    libc6_*) dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$dest" "./$gconv" ;;
    *) dpkg-deb -x "$deb" "$dest" ;;
  esac
done
# uuid-dev's development link may be absolute; point it inside the sysroot.
for link in "$dest"/usr/lib/arm-linux-gnueabihf/libuuid.so; do
  [ -L "$link" ] || continue
  target=$(readlink "$link")
  case "$target" in /*) ln -sfn "$(basename "$target")" "$link" ;; esac
done
echo "${packages[*]}" >"$dest/.complete"
