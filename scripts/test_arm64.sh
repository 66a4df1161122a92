#!/usr/bin/env bash
# The AArch64 stage of the test command: cross-builds the library, the tool and the tests
# for aarch64-linux-gnu (cmake/aarch64-linux-gnu.cmake) into build-arm64/ and runs them
# under qemu-user through CTest (the ARM64 tests: tests/CMakeLists.txt, OX_TARGET_ARCH).
#
# Emulation runs the suite about 50 times slower than the machine, so this stage runs a
# subset that finishes in a few minutes: every test of the SIMD layer (the x86 words
# pinned in test_simd_reference_bits.cpp), the kernel-set, float and integer kernel
# tests (against the scalar model and fixed bit patterns), the standard-path entry and
# bounds tests, the differential run against the scalar model, the golden digests made
# on x86, and the oxvm tool (run, --compare, a batched run). The whole suite runs under
# emulation with: ctest --test-dir build-arm64 -L arm64-full (an hour or more).
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

cmake -S "$root" -B "$root/build-arm64" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" || exit 1
cmake --build "$root/build-arm64" || exit 1
ctest --test-dir "$root/build-arm64" --output-on-failure -j "${OX_JOBS:-$(nproc)}" -L arm64
