# Installs the build into a scratch prefix, then builds the host program in
# consumer/ against it twice, with find_package(Lumets) and with pkg-config,
# and runs both.
set(prefix ${BINARY_DIR}/package-test/prefix)
set(work ${BINARY_DIR}/package-test/consumer)
file(REMOVE_RECURSE ${BINARY_DIR}/package-test)
function(run what)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "${what} failed:\n${out}")
    endif()
endfunction()
run("install" ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
run("configuring the consumer" ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${work}
    -DCMAKE_PREFIX_PATH=${prefix})
run("building the consumer" ${CMAKE_COMMAND} --build ${work})
run("the consumer" ${work}/consumer)

# pkg-config, as a Makefile host would use it.
file(GLOB_RECURSE pcfile ${prefix}/lumets.pc)
get_filename_component(pcdir ${pcfile} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
execute_process(COMMAND pkg-config --cflags --libs lumets
    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not find lumets in ${pcdir}")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
get_filename_component(libdir ${pcdir} DIRECTORY)
run("building with pkg-config" c++ -std=c++20 ${SOURCE_DIR}/main.cpp ${flags}
    -Wl,-rpath,${libdir} -o ${work}/consumer-pc)
run("the pkg-config consumer" ${work}/consumer-pc)
run("the installed lumets" ${prefix}/bin/lumets --help)

# The scene library's C interface, compiled as C against the installed tree
# with its own pkg-config file.
execute_process(COMMAND pkg-config --cflags --libs lumets-scene
    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not find lumets-scene in ${pcdir}")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run("building C against lumets-scene" cc -std=c11 -Wall -Werror
    ${SOURCE_DIR}/../../playback/c_api_test.c ${flags} -Wl,-rpath,${libdir}
    -o ${work}/c-consumer)
run("the C consumer" ${work}/c-consumer)
