# Cross build for 64-bit ARM Linux with Debian's cross compiler (g++-aarch64-linux-gnu):
#   cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
# Tests and the tool then run through qemu-user (package qemu-user), which CTest calls
# for every test command (CMAKE_CROSSCOMPILING_EMULATOR). Libraries of the target come
# from Debian's multiarch packages (libfmt-dev:arm64), found under the target's own
# directories only, never the host's.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(OX_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${OX_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${OX_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${OX_CROSS_TRIPLE})

set(CMAKE_FIND_ROOT_PATH /usr/${OX_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# BOTH: /usr/lib/aarch64-linux-gnu (multiarch) is outside the root path, and the
# architecture-independent config files (CLI11's, under /usr/share) are wanted too.
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# The emulated programs load the target's own multiarch root: its dynamic loader
# (/lib/ld-linux-aarch64.so.1) with the libc, libstdc++ and libfmt of the arm64
# packages, one consistent set. With -L /usr/${OX_CROSS_TRIPLE} qemu took the loader of
# the cross package (glibc 2.36-8) but, finding no libc under that prefix's multiarch
# folder, the arm64 package's libc.so.6 (a later 2.36 build). A loader and a libc of two
# builds disagree on the private data they share: every std::thread spun forever in
# pthread_create (walking the list of cached stacks), and a forked child never ran, so
# death tests, thread tests and std::system hung.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;/)
