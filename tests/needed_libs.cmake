# Fails when the daemon needs a shared library other than the C library at run time.
#   cmake -DREADELF=<readelf> -DBINARY=<zunta-coord> -P tests/needed_libs.cmake
execute_process(COMMAND ${READELF} -d ${BINARY} OUTPUT_VARIABLE dynamic RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "${READELF} could not read ${BINARY}")
endif()
string(REGEX MATCHALL "Shared library: \\[[^]]+\\]" needed "${dynamic}")
list(TRANSFORM needed REPLACE "Shared library: \\[([^]]+)\\]" "\\1")
list(REMOVE_ITEM needed libc.so.6 ld-linux-armhf.so.3)
if(needed)
  message(FATAL_ERROR "zunta-coord needs more than the C library: ${needed}")
endif()
message(STATUS "zunta-coord needs the C library only")
