#!/usr/bin/env bash
# Set up, build, and run every test with CTest, then the sanitizer builds and the fuzz
# smoke runs (scripts/sanitize.sh). Fails when any test fails. OX_JOBS limits test
# parallelism (default: nproc).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

"$root/scripts/build.sh"
ctest --test-dir "$root/build" --output-on-failure -j "${OX_JOBS:-$(nproc)}"
"$root/scripts/sanitize.sh"
