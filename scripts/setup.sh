#!/usr/bin/env bash
# Installs the Debian packages the project builds with, when any is missing, plus any
# package named on the command line (scripts/sanitize.sh and bench/report pass theirs).
# As root it uses apt-get; otherwise it says exactly what to install and fails.
set -euo pipefail

packages=(cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev libfmt-dev libtbb-dev "$@")

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -eq 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
else
  echo "setup: missing Debian packages: ${missing[*]}" >&2
  echo "setup: install them with:  sudo apt-get install ${missing[*]}" >&2
  exit 1
fi
