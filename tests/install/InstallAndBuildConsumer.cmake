# Installs the built library into a fresh prefix, then configures, builds and runs
# the consumer project against that prefix alone.
# Needs -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=...
file(REMOVE_RECURSE "${WORK_DIR}")
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}")
  endif()
endfunction()
run("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${WORK_DIR}/prefix")
run("${CMAKE_COMMAND}" -S "${SOURCE_DIR}/tests/install" -B "${WORK_DIR}/consumer"
    "-DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix" -DCMAKE_BUILD_TYPE=Release)
run("${CMAKE_COMMAND}" --build "${WORK_DIR}/consumer")
run("${WORK_DIR}/consumer/consumer")
