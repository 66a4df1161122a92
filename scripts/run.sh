#!/usr/bin/env bash
# The main job: set up, build the oxvm tool alone (not the tests and benchmarks, which
# scripts/build.sh and scripts/test.sh build), then run it (default: run the bundled
# example). Arguments are passed to oxvm, e.g. scripts/run.sh --help. The build's
# progress goes to standard error (one line per step), so that standard output is the
# tool's alone.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

echo "run.sh: building oxvm (build/) ..." >&2
{
  "$root/scripts/setup.sh"
  # Configured as scripts/build.sh configures it, so that both share build/.
  cmake -S "$root" -B "$root/build" -G Ninja
  cmake --build "$root/build" --target oxvm
} >&2
if [ "$#" -eq 0 ]; then
  set -- run
fi
exec "$root/build/tools/oxvm" "$@"
