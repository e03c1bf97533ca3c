# Installs the built library into a scratch prefix, then builds the consumer project against it
# with find_package and with pkg-config, and runs both programs.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${QUMA_BINARY_DIR} --prefix ${prefix}
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${QUMA_SOURCE_DIR}/tests/package/consumer
                  -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configuring the consumer failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "building the consumer failed: ${rc}")
endif()
foreach(exe consumer_cmake consumer_pkgconfig)
  execute_process(COMMAND ${WORK_DIR}/build/${exe} RESULT_VARIABLE rc OUTPUT_VARIABLE out)
  if(rc)
    message(FATAL_ERROR "${exe} failed: ${rc}\n${out}")
  endif()
  message(STATUS "${exe}: ${out}")
endforeach()
