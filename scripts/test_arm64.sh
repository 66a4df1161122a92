#!/usr/bin/env bash
# The AArch64 stage of the test command: cross-builds the library, the tool and the tests
# for aarch64-linux-gnu (cmake/aarch64-linux-gnu.cmake) into build-arm64/ and runs every
# test of that build under qemu-user through CTest (label arm64: the GoogleTest suite in
# its eight shards, the oxvm tool's runs, the differential run against the scalar model,
# the golden digests written on x86 and the check that a wrong digest is named, the
# OX_CBVM_ISA choices, and the package tests against an AArch64 install).
#
# Nothing is left out: on a 2-core machine (OX_JOBS=2) the configure and build from
# nothing took 222 s and the 26 tests 56 s, 4 min 38 s for the whole script (the "took"
# lines it prints), inside the 10 minutes the stage may take. A test that hangs fails
# after 10 minutes (TIMEOUT) instead of holding the stage.
# Not covered here: the oneTBB parallel-for (no libtbb-dev:arm64 is installed, so the
# cross build has no oneTBB part) and the sanitizer builds (x86 only).
set -uo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

"$root/scripts/setup.sh" || exit 1
# The cross compiler, the emulator, GoogleTest's sources and the target's fmt.
need=(g++-aarch64-linux-gnu qemu-user googletest)
dpkg --print-foreign-architectures | grep -qx arm64 || {
  if [ "$(id -u)" -eq 0 ]; then dpkg --add-architecture arm64; else echo "test_arm64: run as root, or: sudo dpkg --add-architecture arm64" >&2; exit 1; fi
}
need+=(libfmt-dev:arm64)
missing=()
for package in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ "${#missing[@]}" -ne 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "test_arm64: missing Debian packages: ${missing[*]} (sudo apt-get install ${missing[*]})" >&2
    exit 1
  fi
  echo "test_arm64: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q && apt-get install -y -q --no-install-recommends "${missing[@]}" || exit 1
fi

# OX_JOBS: build and test parallelism (default: the build tool's own, and nproc for ctest).
if [ -n "${OX_JOBS:-}" ]; then
  export CMAKE_BUILD_PARALLEL_LEVEL="$OX_JOBS"
fi
started=$SECONDS
cmake -S "$root" -B "$root/build-arm64" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" || exit 1
cmake --build "$root/build-arm64" || exit 1
built=$SECONDS
echo "test_arm64: configure and build took $((built - started)) s"
ctest --test-dir "$root/build-arm64" --output-on-failure -j "${OX_JOBS:-$(nproc)}" -L '^arm64$'
status=$?
echo "test_arm64: tests under qemu took $((SECONDS - built)) s"
exit $status
