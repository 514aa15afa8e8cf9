# The shared library must export the six factory functions and the three
# interface classes, and nothing else.
add_test(NAME exports
    COMMAND ${CMAKE_COMMAND} -DLIBRARY=$<TARGET_FILE:lumets>
            -P ${CMAKE_CURRENT_LIST_DIR}/check_exports.cmake)
