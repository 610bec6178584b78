# Fails unless the library exports exactly the names of the list, no more and no less.
#   cmake -D LIBRARY=... -D EXPECTED=... -D OBJDUMP=... -D NM=... -P check_exports.cmake
if(LIBRARY MATCHES "\\.dll$")
    execute_process(COMMAND ${OBJDUMP} -p ${LIBRARY} OUTPUT_VARIABLE table COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX REPLACE "^.*\\[Ordinal/Name Pointer\\] Table\n" "" table "${table}")
    string(REGEX REPLACE "\n[ \t]*\n.*$" "" table "${table}")  # what follows has numbers in brackets too
    string(REGEX MATCHALL "\n?[ \t]*\\[ *[0-9]+\\] [^\n]+" rows "${table}")
    list(TRANSFORM rows REPLACE "\n?[ \t]*\\[ *[0-9]+\\] " "")
else()
    execute_process(COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY}
        OUTPUT_VARIABLE table COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCHALL "[^\n]+" rows "${table}")
    list(TRANSFORM rows REPLACE " .*" "")
endif()
file(STRINGS ${EXPECTED} expected)
set(missing ${expected})
list(REMOVE_ITEM missing ${rows})
set(extra ${rows})
list(REMOVE_ITEM extra ${expected})
if(missing OR extra)
    message(FATAL_ERROR "missing: ${missing}\nnot to be exported: ${extra}")
endif()
list(LENGTH rows count)
message("${count} names, as expected")
