# Installs the build tree into a scratch prefix and imports the package from there, as a
# user does after `cmake --install`: the module must find the installed library through
# its run path, not the build tree's.
file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(COMMAND "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${WORK_DIR}" RESULT_VARIABLE rc
                OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
execute_process(
  COMMAND "${CMAKE_COMMAND}" -E env "PYTHONPATH=${WORK_DIR}/${PACKAGE_DIR}" "${PYTHON}" -c
          "import zor, numpy as np; b = zor.sample_body(2000); r = zor.register(b, b); assert np.allclose(r.transform, np.eye(4), atol=1e-6); print(zor._zor.__file__)"
  RESULT_VARIABLE rc OUTPUT_VARIABLE where ERROR_VARIABLE errors)
if(rc OR NOT where MATCHES "^${WORK_DIR}/")
  message(FATAL_ERROR "the installed package failed: ${rc} ${where} ${errors}")
endif()
