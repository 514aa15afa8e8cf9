# Reads the dynamic symbol table of LIBRARY and fails on any export that is not
# part of the public API.
execute_process(COMMAND nm -D --defined-only -C ${LIBRARY}
    OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${symbols}")
set(allowed
    "^CreateLumetManager\\(\\)$"
    "^DeleteLumetManager\\(ILumetManager\\*\\)$"
    "^CreateWeirdSubtitleManager\\(\\)$"
    "^DeleteWeirdSubtitleManager\\(IWeirdSubtitleManager\\*\\)$"
    "^CreateVirtualSceneManager\\(\\)$"
    "^DeleteVirtualSceneManager\\(IVirtualSceneManager\\*\\)$"
    "^(ILumetManager|IWeirdSubtitleManager|IVirtualSceneManager)::"
    "^(vtable|typeinfo|typeinfo name) for (ILumetManager|IWeirdSubtitleManager|IVirtualSceneManager)$"
    "^LUMETS_1$")
set(count 0)
foreach(line ${lines})
    # "<address> <type> <name>"
    string(REGEX REPLACE "^[0-9a-fA-F]* +[A-Za-z] +" "" name "${line}")
    if(name STREQUAL "")
        continue()
    endif()
    set(ok FALSE)
    foreach(pattern ${allowed})
        if(name MATCHES "${pattern}")
            set(ok TRUE)
        endif()
    endforeach()
    if(NOT ok)
        message(SEND_ERROR "unexpected export: ${name}")
    endif()
    math(EXPR count "${count} + 1")
endforeach()
foreach(required "CreateLumetManager()" "DeleteVirtualSceneManager(IVirtualSceneManager*)"
        "vtable for IWeirdSubtitleManager" "ILumetManager::~ILumetManager()")
    string(FIND "${symbols}" "${required}" at)
    if(at EQUAL -1)
        message(SEND_ERROR "missing export: ${required}")
    endif()
endforeach()
message(STATUS "${count} exports checked")
