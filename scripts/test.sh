#!/usr/bin/env bash
# Set up, build, and run every test with CTest. Fails when any test fails.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

"$root/scripts/build.sh"
ctest --test-dir "$root/build" --output-on-failure -j "$(nproc)"
