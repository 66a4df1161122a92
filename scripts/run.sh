#!/usr/bin/env bash
# The main job: set up, build, then run the oxvm tool (default: run the bundled example).
# Arguments are passed to oxvm, e.g. scripts/run.sh --help
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

"$root/scripts/build.sh" >/dev/null
if [ "$#" -eq 0 ]; then
  set -- run
fi
exec "$root/build/tools/oxvm" "$@"
