#!/usr/bin/env bash
# Installs the Debian packages the project needs (listed in .ci/packages.txt) when any is missing.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
mapfile -t pkgs < <(grep -v '^\s*\(#\|$\)' "$here/packages.txt")
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -q
  $sudo_cmd apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
