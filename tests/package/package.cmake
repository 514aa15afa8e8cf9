# Installs the build into a scratch prefix, then builds and runs a small
# program against it with find_package(Lumets).
set(prefix ${BINARY_DIR}/package-test/prefix)
set(work ${BINARY_DIR}/package-test/consumer)
file(REMOVE_RECURSE ${BINARY_DIR}/package-test)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix}
    RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "install failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${work} -DCMAKE_PREFIX_PATH=${prefix}
    RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "configuring the consumer failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${work} RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "building the consumer failed")
endif()
execute_process(COMMAND ${work}/consumer RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "the consumer failed")
endif()
