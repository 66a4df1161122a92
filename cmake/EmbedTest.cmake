# Installs the build in BUILD_DIR into a private prefix, then configures, builds and
# runs the host project in SOURCE_DIR against it with find_package: the way an
# engine would consume the library. Run with cmake -P.
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

run_step(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
# The tool is installed too, and runs from there.
if(EXISTS "${BUILD_DIR}/tools/oxvm")
  run_step("${prefix}/bin/oxvm" --help)
endif()
run_step(${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}/build" -G Ninja -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run_step(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
run_step("${WORK_DIR}/build/embed_host")
