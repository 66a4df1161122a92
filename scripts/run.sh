#!/usr/bin/env bash
# The main job: set up, build, then run the oxvm tool (default: run the bundled example).
# Arguments are passed to oxvm, e.g. scripts/run.sh --help. The build's progress goes to
# standard error (one line per step), so that standard output is the tool's alone.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

echo "run.sh: building (build/) ..." >&2
"$root/scripts/build.sh" >&2
if [ "$#" -eq 0 ]; then
  set -- run
fi
exec "$root/build/tools/oxvm" "$@"
