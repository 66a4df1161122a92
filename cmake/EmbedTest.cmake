# Installs the build in BUILD_DIR into a private prefix, then configures, builds and
# runs the host project in SOURCE_DIR against it with find_package: the way an
# engine would consume the library. Run with cmake -P.
#
# Optional: CXX_STANDARD (the host's language standard, e.g. 20), STRICT (ON: the host
# builds with -Wall -Wextra -Werror, no compiler extensions, and the library's headers
# as ordinary ones: an imported target's include folder is a system one by default,
# where the compiler keeps quiet about their warnings), HEADER_CHECK_DIR (a
# project that compiles every installed public header alone, configured and built the
# same way: tests/package/headers), TOOLCHAIN_FILE and EMULATOR (a cross build: the host
# is configured with the same toolchain file, and every program built runs through the
# emulator's command line).
foreach(var BUILD_DIR SOURCE_DIR WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")

function(run_step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endfunction()

set(host_options -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
set(emulator "")
if(DEFINED TOOLCHAIN_FILE)
  list(APPEND host_options -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE})
endif()
if(DEFINED EMULATOR)
  separate_arguments(emulator UNIX_COMMAND "${EMULATOR}")
endif()
if(DEFINED CXX_STANDARD)
  list(APPEND host_options -DCMAKE_CXX_STANDARD=${CXX_STANDARD})
endif()
if(STRICT)
  list(APPEND host_options "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror" -DCMAKE_CXX_EXTENSIONS=OFF -DCMAKE_NO_SYSTEM_FROM_IMPORTED=ON)
endif()

run_step(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
# The tool is installed too, and runs from there.
if(EXISTS "${BUILD_DIR}/tools/oxvm")
  run_step(${emulator} "${prefix}/bin/oxvm" --help)
endif()
run_step(${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}/build" -G Ninja ${host_options})
# The host's compile line has the standard and the flags asked for (CMake gives a
# compiler extension's -std=gnu++NN unless told not to).
if(DEFINED CXX_STANDARD OR STRICT)
  file(READ "${WORK_DIR}/build/build.ninja" rules)
  set(wanted "")
  if(DEFINED CXX_STANDARD)
    list(APPEND wanted "-std=c++${CXX_STANDARD}")
  endif()
  if(STRICT)
    list(APPEND wanted "-Wall -Wextra -Werror")
    string(FIND "${rules}" "-isystem" at)
    if(NOT at EQUAL -1)
      message(FATAL_ERROR "the host's build rules include a folder as a system one (its warnings unseen)")
    endif()
  endif()
  foreach(flag IN LISTS wanted)
    string(FIND "${rules}" "${flag}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "the host's build rules have no '${flag}'")
    endif()
  endforeach()
endif()
run_step(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
run_step(${emulator} "${WORK_DIR}/build/embed_host")
# The README's example: it must run as a prepared plan in batches, as the README says.
execute_process(COMMAND ${emulator} "${WORK_DIR}/build/embed_quick_start" RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT result EQUAL 0 OR NOT out MATCHES "^batches of .*; prepared: ")
  message(FATAL_ERROR "embed_quick_start (${result}) did not run prepared in batches:\n${out}\n${err}")
endif()
message(STATUS "${out}")
if(DEFINED HEADER_CHECK_DIR)
  run_step(${CMAKE_COMMAND} -S "${HEADER_CHECK_DIR}" -B "${WORK_DIR}/headers" -G Ninja ${host_options})
  run_step(${CMAKE_COMMAND} --build "${WORK_DIR}/headers")
endif()
