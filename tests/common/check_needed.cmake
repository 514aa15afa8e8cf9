# Fails when LIBRARY names any of the shared libraries matching FORBIDDEN
# (a regular expression) among its NEEDED entries: it keeps the host library
# free of the text and configuration libraries.
execute_process(COMMAND readelf -d ${LIBRARY} OUTPUT_VARIABLE dynamic RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "readelf failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "NEEDED[^\n]*" needed "${dynamic}")
foreach(entry ${needed})
    if(entry MATCHES "${FORBIDDEN}")
        message(FATAL_ERROR "${LIBRARY} must not link ${entry}")
    endif()
endforeach()
