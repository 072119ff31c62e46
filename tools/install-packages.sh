#!/usr/bin/env bash
# Installs the Debian packages listed in debian-packages.txt that this machine lacks.
# Called by `make run` and `make test`; safe to run again (it does nothing when all are present).
set -euo pipefail
list="$(dirname "$0")/../debian-packages.txt"
missing=()
while read -r package _; do
  [[ -z "$package" || "$package" == \#* ]] && continue
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$package")
done <"$list"
if [[ ${#missing[@]} -eq 0 ]]; then
  exit 0
fi
echo "Installing missing Debian packages: ${missing[*]}"
sudo=()
if [[ $(id -u) -ne 0 ]]; then
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq </dev/null
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
