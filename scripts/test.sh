#!/usr/bin/env bash
# Set up, build, and run every test with CTest, then the sanitizer builds and the fuzz
# smoke runs (scripts/sanitize.sh), then the AArch64 cross build and its tests under
# emulation (scripts/test_arm64.sh). Every stage runs; the last line sums the CTest
# results of all of them as "N passed, M failed", and the exit status is non-zero when
# any stage failed. OX_JOBS limits test parallelism (default: nproc).
set -uo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
logs="$(mktemp -d)"
trap 'rm -rf "$logs"' EXIT

status=0
"$root/scripts/build.sh" || exit 1
ctest --test-dir "$root/build" --output-on-failure -j "${OX_JOBS:-$(nproc)}" 2>&1 | tee "$logs/main.log" || status=1
"$root/scripts/sanitize.sh" 2>&1 | tee "$logs/sanitize.log" || status=1
# The AArch64 stage: cross build, then the ARM64 subset under qemu (scripts/test_arm64.sh).
"$root/scripts/test_arm64.sh" 2>&1 | tee "$logs/arm64.log" || status=1

# Every "X% tests passed, F tests failed out of T" line of every stage.
read -r passed failed < <(cat "$logs"/*.log | sed -nE 's/.*tests passed, ([0-9]+) tests failed out of ([0-9]+).*/\1 \2/p' |
  awk '{ failed += $1; passed += $2 - $1 } END { print passed + 0, failed + 0 }')
if [ "$status" -ne 0 ] && [ "$failed" -eq 0 ]; then
  failed=1	# a stage failed outside its tests (a build, a script)
fi
echo "summary: $passed passed, $failed failed"
exit "$status"
