cmake_minimum_required(VERSION 3.25)
# The Windows export files, checked with the mingw cross compiler:
# - a DLL that defines every name of both lists (none marked for export),
#   linked with the generated .def, exports exactly src/exports.list's
#   names: the host-side calls stay out of zvxfer.dll;
# - the public header compiles for Windows as C with <windows.h>, its window
#   handle being HWND (windows_header.c; warnings are errors).
#
#   CC OBJDUMP DEF HEADER_DIR SOURCE_DIR WORK EXPORTS HOST_LIST

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
set(names "")
foreach(list_file IN ITEMS ${EXPORTS} ${HOST_LIST})
  file(STRINGS ${list_file} lines)
  foreach(line IN LISTS lines)
    if(NOT line STREQUAL "" AND NOT line MATCHES "^#")
      list(APPEND names ${line})
    endif()
  endforeach()
endforeach()
set(stub "/* Every listed name, none marked for export. */\n")
foreach(name IN LISTS names)
  string(APPEND stub "int ${name}(void) { return 0; }\n")
endforeach()
file(WRITE ${WORK}/stub.c "${stub}")

execute_process(COMMAND ${CC} -shared -o ${WORK}/zvxfer.dll ${WORK}/stub.c ${DEF}
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the stub DLL does not link with ${DEF}:\n${err}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -DLIB=${WORK}/zvxfer.dll -DLISTS=${EXPORTS}
                        -DOBJDUMP=${OBJDUMP} -P ${SOURCE_DIR}/tests/api/check_exports.cmake
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the DLL's export table is not src/exports.list:\n${out}${err}")
endif()
message(STATUS "${out}")

execute_process(COMMAND ${CC} -std=c11 -Wall -Wextra -pedantic -Werror -c
                        -I${HEADER_DIR} -o ${WORK}/windows_header.o
                        ${SOURCE_DIR}/tests/api/windows_header.c
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the header does not compile for Windows:\n${err}")
endif()
message(STATUS "the header compiles for Windows with HWND windows")
