# Installs the build tree into a scratch prefix (or takes PREFIX, where the Debian
# packages were unpacked), then configures, builds and runs the outside consumers against
# it: one of the pair calls and files, one of the operators alone (whose program must
# not need the file module at run time).
file(REMOVE_RECURSE "${WORK_DIR}")
if(DEFINED PREFIX)
  set(prefix "${PREFIX}")
else()
  set(prefix "${WORK_DIR}/install")
  execute_process(COMMAND "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}" RESULT_VARIABLE rc)
  if(rc)
    message(FATAL_ERROR "install failed: ${rc}")
  endif()
endif()

function(build_and_run name source program)
  execute_process(COMMAND "${CMAKE_COMMAND}" -S "${source}" -B "${WORK_DIR}/${name}" -G "${GENERATOR}"
                          "-DCMAKE_PREFIX_PATH=${prefix}" -DCMAKE_BUILD_TYPE=Release RESULT_VARIABLE rc)
  if(rc)
    message(FATAL_ERROR "${name}: configure failed: ${rc}")
  endif()
  execute_process(COMMAND "${CMAKE_COMMAND}" --build "${WORK_DIR}/${name}" RESULT_VARIABLE rc)
  if(rc)
    message(FATAL_ERROR "${name}: build failed: ${rc}")
  endif()
  execute_process(COMMAND "${WORK_DIR}/${name}/${program}" WORKING_DIRECTORY "${WORK_DIR}" RESULT_VARIABLE rc)
  if(rc)
    message(FATAL_ERROR "${name}: ${program} failed: ${rc}")
  endif()
endfunction()

build_and_run(pair "${SOURCE_DIR}" consumer)
build_and_run(operators "${SOURCE_DIR}/operators" operators_consumer)
# What the operators' program needs at run time, the libraries it names and theirs.
execute_process(COMMAND ldd "${WORK_DIR}/operators/operators_consumer" OUTPUT_VARIABLE needed RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "ldd failed on the operators' consumer: ${rc}")
endif()
if(needed MATCHES "libzor_files|libzor_pair")
  message(FATAL_ERROR "the operators' consumer needs the file module at run time:\n${needed}")
endif()
if(NOT needed MATCHES "libZorStlRegistration")
  message(FATAL_ERROR "the operators' consumer does not load the operators' library:\n${needed}")
endif()

# The installed program finds the installed library through its run path.
if(NOT WITH_TOOL)
  return()
endif()
execute_process(COMMAND "${prefix}/bin/zor-register" --version RESULT_VARIABLE rc OUTPUT_VARIABLE version)
if(rc OR NOT version MATCHES "^zor-register ")
  message(FATAL_ERROR "installed zor-register failed: ${rc} ${version}")
endif()
