#!/usr/bin/env bash
# Makes the Debian 12 armhf sysroot of the 32-bit ARM build: the packages listed in
# cross/armhf/packages.txt, extracted (not installed: no armhf program runs) with mmdebstrap into
# build/armhf-sysroot. Rebuilt only when the list changes (a hash of it is stamped in the
# sysroot). Absolute symbolic links inside it are made relative so that the cross linker, which
# reads the sysroot from the host, follows them into the sysroot and not into the host's /.
# Prints the sysroot's path.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
list="$root/cross/armhf/packages.txt"
sysroot="${QLMR_ARMHF_SYSROOT:-$root/build/armhf-sysroot}"
stamp="$sysroot/.qlmr-packages"

packages=$(grep -v -e '^#' -e '^[[:space:]]*$' "$list" | paste -sd, -)
hash=$(sha256sum "$list" | cut -d' ' -f1)
if [[ -f "$stamp" && "$(cat "$stamp")" == "$hash" ]]; then
  echo "$sysroot"
  exit 0
fi

echo "armhf-sysroot: extracting $sysroot" >&2
rm -rf "$sysroot" "$sysroot.tmp"
mkdir -p "$(dirname "$sysroot")"
# The main archive and its point updates only: the security archive's armhf index is
# sometimes mid-sync, and mmdebstrap fails on any index it cannot fetch.
mmdebstrap --quiet --variant=extract --architectures=armhf --include="$packages" bookworm \
  "$sysroot.tmp" "deb http://deb.debian.org/debian bookworm main" \
  "deb http://deb.debian.org/debian bookworm-updates main" >&2

# /usr/lib/arm-linux-gnueabihf/libm.so -> /lib/arm-linux-gnueabihf/libm.so.6 and the like.
find "$sysroot.tmp" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot.tmp$target")" "$link"
done
echo "$hash" >"$sysroot.tmp/.qlmr-packages"
mv "$sysroot.tmp" "$sysroot"
echo "$sysroot"
