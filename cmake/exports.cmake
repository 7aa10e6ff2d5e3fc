# The export files made from the name lists: src/exports.list holds the
# library's exported functions, platform/<platform>/exports.list the host-side
# calls that platform adds (none on Windows).  Both files are rewritten only
# when their text changes, so that a new configure does not relink.
#
#   ZVXFER_EXPORTS       the names of src/exports.list
#   ZVXFER_HOST_EXPORTS  the names of the platform's list (may be empty)
#   ZVXFER_VERSION_SCRIPT  <build>/exports/zvxfer.map: both lists, all else local
#   ZVXFER_DEF_FILE        <build>/exports/zvxfer.def: src/exports.list only

# Read a list: one C name a line; blank lines and lines starting with '#'
# are skipped.  Anything else stops the configuration, as does a name given
# twice, so that a typing error cannot drop an export unseen.
function(zvxfer_read_export_list file out)
  set(names "")
  if(EXISTS ${file})
    file(STRINGS ${file} lines)
    foreach(line IN LISTS lines)
      string(STRIP "${line}" line)
      if(line STREQUAL "" OR line MATCHES "^#")
        continue()
      endif()
      if(NOT line MATCHES "^[A-Za-z_][A-Za-z0-9_]*$")
        message(FATAL_ERROR "${file}: not a function name: '${line}'")
      endif()
      if(line IN_LIST names)
        message(FATAL_ERROR "${file}: ${line} is listed twice")
      endif()
      list(APPEND names ${line})
    endforeach()
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  set(${out} ${names} PARENT_SCOPE)
endfunction()

function(zvxfer_write_if_changed file text)
  file(WRITE ${file}.new "${text}")
  configure_file(${file}.new ${file} COPYONLY)
  file(REMOVE ${file}.new)
endfunction()

zvxfer_read_export_list(${CMAKE_SOURCE_DIR}/src/exports.list ZVXFER_EXPORTS)
zvxfer_read_export_list(${CMAKE_SOURCE_DIR}/platform/${ZVXFER_PLATFORM}/exports.list
                        ZVXFER_HOST_EXPORTS)
if(NOT ZVXFER_EXPORTS)
  message(FATAL_ERROR "src/exports.list names no function")
endif()
foreach(name IN LISTS ZVXFER_HOST_EXPORTS)
  if(name IN_LIST ZVXFER_EXPORTS)
    message(FATAL_ERROR "${name} is in src/exports.list and in the platform's list")
  endif()
endforeach()

set(ZVXFER_VERSION_SCRIPT ${CMAKE_BINARY_DIR}/exports/zvxfer.map)
set(ZVXFER_DEF_FILE ${CMAKE_BINARY_DIR}/exports/zvxfer.def)

set(_map "/* Made from src/exports.list and platform/${ZVXFER_PLATFORM}/exports.list. */\n{\n  global:\n")
foreach(name IN LISTS ZVXFER_EXPORTS ZVXFER_HOST_EXPORTS)
  string(APPEND _map "    ${name};\n")
endforeach()
string(APPEND _map "  local: *;\n};\n")
zvxfer_write_if_changed(${ZVXFER_VERSION_SCRIPT} "${_map}")

set(_def "; Made from src/exports.list.\nLIBRARY zvxfer.dll\nEXPORTS\n")
foreach(name IN LISTS ZVXFER_EXPORTS)
  string(APPEND _def "    ${name}\n")
endforeach()
zvxfer_write_if_changed(${ZVXFER_DEF_FILE} "${_def}")
