# What find_package(OrvexCBVM COMPONENTS ...) says to a host, against installs of the
# build in BUILD_DIR (tests/package/tbb_component is the host). Run with cmake -P.
#
#   - an install without the oneTBB part (what a build that did not find oneTBB installs:
#     no OrvexCBVMTbbTargets*.cmake, no library; made here by removing them from an
#     install of this build when it has them): COMPONENTS tbb fails with the reason,
#     OPTIONAL_COMPONENTS tbb configures and gives the same reason;
#   - an install with it, for a host where oneTBB is not found (CMAKE_DISABLE_FIND_PACKAGE_TBB):
#     fails with that reason; for a host that has it: found, and a program links it and runs;
#   - a component that does not exist: fails, naming the components there are.
# A cross build passes TOOLCHAIN_FILE (the hosts are configured with it) and EMULATOR
# (the command line a built program runs through).
foreach(var BUILD_DIR SOURCE_DIR WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()
file(REMOVE_RECURSE "${WORK_DIR}")
set(cross_options "")
set(emulator "")
if(DEFINED TOOLCHAIN_FILE)
  list(APPEND cross_options -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE})
endif()
if(DEFINED EMULATOR)
  separate_arguments(emulator UNIX_COMMAND "${EMULATOR}")
endif()

function(install_to prefix)
  execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}" RESULT_VARIABLE result OUTPUT_QUIET ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "install failed: ${err}")
  endif()
endfunction()

# Configures the host against 'prefix' with the given options; 'expect' is "ok" or
# "fail", and every further argument after "TEXT" must appear in the configure output.
set(case 0)
function(host name prefix expect)
  cmake_parse_arguments(PARSE_ARGV 3 arg "" "" "OPTIONS;TEXT")
  math(EXPR next "${case} + 1")
  set(case ${next} PARENT_SCOPE)
  set(dir "${WORK_DIR}/host${next}")
  execute_process(COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${dir}" -G Ninja -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release ${cross_options} ${arg_OPTIONS}
                  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  set(all "${out}${err}")
  # CMake wraps the reason's lines: compare with the whitespace folded.
  string(REGEX REPLACE "[ \t\r\n]+" " " folded "${all}")
  if(expect STREQUAL "ok" AND NOT result EQUAL 0)
    message(FATAL_ERROR "${name}: the host did not configure:\n${all}")
  elseif(expect STREQUAL "fail" AND result EQUAL 0)
    message(FATAL_ERROR "${name}: the host configured, it should not have:\n${all}")
  endif()
  foreach(text IN LISTS arg_TEXT)
    string(FIND "${folded}" "${text}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "${name}: no '${text}' in what CMake said:\n${all}")
    endif()
  endforeach()
  message(STATUS "${name}: as expected")
  if(expect STREQUAL "ok" AND EXISTS "${dir}/build.ninja")
    set(built_dir "${dir}" PARENT_SCOPE)
  endif()
endfunction()

set(full "${WORK_DIR}/full")
set(without "${WORK_DIR}/without-tbb")
install_to("${full}")
install_to("${without}")
file(GLOB tbb_files "${without}/lib*/cmake/OrvexCBVM/OrvexCBVMTbbTargets*.cmake" "${without}/lib*/liborvex_cbvm_tbb.a")
if(tbb_files)
  file(REMOVE ${tbb_files})
endif()

set(built_without "built without oneTBB, which its configure step did not find")
host("required, install without oneTBB" "${without}" fail OPTIONS -DCOMPONENTS=tbb
     TEXT "Reason given by package" "component 'tbb' (Orvex::cbvm_tbb) is not in this install" "${built_without}")
host("optional, install without oneTBB" "${without}" ok OPTIONS -DCOMPONENTS=tbb -DOPTIONAL=ON
     TEXT "component tbb: found 'FALSE'" "${built_without}")
host("no such component" "${full}" fail OPTIONS -DCOMPONENTS=frobnicate
     TEXT "there is no component 'frobnicate' (the components: tbb)")

file(GLOB has_tbb "${full}/lib*/cmake/OrvexCBVM/OrvexCBVMTbbTargets.cmake")
if(NOT has_tbb)
  message(STATUS "this build has no oneTBB part: the cases of an install with it are not run")
  return()
endif()
host("required, host without oneTBB" "${full}" fail OPTIONS -DCOMPONENTS=tbb -DCMAKE_DISABLE_FIND_PACKAGE_TBB=ON
     TEXT "needs oneTBB, and its package (TBB, CONFIG mode) was not found for this project")
host("required, host with oneTBB" "${full}" ok OPTIONS -DCOMPONENTS=tbb TEXT "component tbb: found 'TRUE'")
execute_process(COMMAND ${CMAKE_COMMAND} --build "${built_dir}" RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "the host of Orvex::cbvm_tbb did not build:\n${out}${err}")
endif()
execute_process(COMMAND ${emulator} "${built_dir}/tbb_host" RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT result EQUAL 0 OR NOT err STREQUAL "")
  message(FATAL_ERROR "tbb_host: exit ${result}\n${out}${err}")
endif()
message(STATUS "${out}")
