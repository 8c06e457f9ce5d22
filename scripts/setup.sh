#!/usr/bin/env bash
# Installs, with apt-get, whichever of the packages in scripts/packages.txt are missing.
# Safe to run again: when everything is present it only checks and returns.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

missing=()
while read -r pkg; do
  [[ -z "$pkg" || "$pkg" == \#* ]] && continue
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done <"$here/packages.txt"

if ((${#missing[@]} == 0)); then
  exit 0
fi

sudo=""
if [[ $(id -u) -ne 0 ]]; then
  if command -v sudo >/dev/null; then sudo="sudo"; else
    echo "setup: missing packages (${missing[*]}) and not root; install them with apt-get" >&2
    exit 1
  fi
fi
echo "setup: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
