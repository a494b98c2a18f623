# cmake -DFOLDER=<path> -DMODE=reset|check -P EmptyFolder.cmake
# reset: FOLDER exists and is empty. check: fails, naming each entry, unless FOLDER is still empty.
if(MODE STREQUAL "reset")
    file(REMOVE_RECURSE "${FOLDER}")
    file(MAKE_DIRECTORY "${FOLDER}")
    return()
endif()
file(GLOB_RECURSE entries LIST_DIRECTORIES true RELATIVE "${FOLDER}" "${FOLDER}/*")
# Hidden entries too: GLOB's "*" matches names starting with a dot.
if(entries)
    list(JOIN entries "\n  " listed)
    message(FATAL_ERROR "Tests wrote into their HOME (${FOLDER}):\n  ${listed}")
endif()
