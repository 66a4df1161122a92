#!/usr/bin/env bash
# Sets up the machine (scripts/setup.sh), then configures and builds into build/.
# Extra arguments go to the CMake configure step (for example -DCMAKE_BUILD_TYPE=Debug).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

"$root/scripts/setup.sh"
cmake -S "$root" -B "$root/build" -G Ninja "$@"
cmake --build "$root/build"
