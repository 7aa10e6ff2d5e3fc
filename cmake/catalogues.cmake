# Message catalogues and the registry that lets the library find them.
# In the build tree: <build>/share/zvxfer/*.nls and <build>/etc/zvxfer/registry;
# installed: <datadir>/zvxfer and <sysconfdir>/zvxfer/registry (the registry
# is written by cmake/install.cmake, naming the prefix installed to).
# On Windows: resource-only libraries <build>/bin/*.nls beside zvxfer.dll and
# the system registry (target zvxfer_register).
file(GLOB ZVXFER_CATALOGUES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/catalogues/*.nls)
set(ZVXFER_LANGUAGES "eng deu fra")

# The registry naming the catalogues in <datadir>/zvxfer.
function(zvxfer_registry_text out datadir)
  set(k "Software\\Marrowind\\Tessera\\15.00\\Locale")
  set(${out}
"# zvxfer registration: where the message catalogues are, which languages exist.
HKCR\tCLSID\\{5B3E91A4-7C20-4E6D-9A1F-2D84C07E6B13}\\InprocServer32\t\t${datadir}/zvxfer/zvui32.nls
HKLM\t${k}\tAvailable UI Languages\t${ZVXFER_LANGUAGES}
HKLM\t${k}\tGlobal Default UI Language\teng
" PARENT_SCOPE)
endfunction()

# The component key and the locale key as registry entries: the catalogues'
# folder (the file named is one of the product's files in it) and the
# languages that exist.
set(ZVXFER_COMPONENT_KEY "CLSID\\{5B3E91A4-7C20-4E6D-9A1F-2D84C07E6B13}\\InprocServer32")
set(ZVXFER_LOCALE_KEY "Software\\Marrowind\\Tessera\\15.00\\Locale")

if(WIN32)
  # On Windows each catalogue becomes a resource-only library: its texts in
  # one STRINGTABLE (converted to Windows-1252 by scripts/nls_rc.py, which
  # refuses a text with a character that code page lacks), linked with no
  # code, no imports and no entry point, and placed beside zvxfer.dll where
  # the registered component path points.
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  if(NOT CMAKE_RC_COMPILER)
    find_program(CMAKE_RC_COMPILER NAMES ${CMAKE_CXX_COMPILER_TARGET}-windres windres REQUIRED)
  endif()
  set(_cat_outputs)
  foreach(cat ${ZVXFER_CATALOGUES})
    get_filename_component(name ${cat} NAME)
    get_filename_component(stem ${cat} NAME_WE)
    string(REPLACE "." "_" obj_name "${name}")
    set(rc ${CMAKE_BINARY_DIR}/catalogues/${obj_name}.rc)
    set(obj ${CMAKE_BINARY_DIR}/catalogues/${obj_name}.o)
    set(dst ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name})
    add_custom_command(OUTPUT ${dst}
      COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/scripts/nls_rc.py ${cat} ${rc}
      COMMAND ${CMAKE_RC_COMPILER} --codepage=1252 -O coff -i ${rc} -o ${obj}
      COMMAND ${CMAKE_LINKER} --dll -e 0 --no-insert-timestamp --enable-reloc-section
              -T ${CMAKE_SOURCE_DIR}/cmake/resource_only.ld -o ${dst} ${obj}
      DEPENDS ${cat} ${CMAKE_SOURCE_DIR}/scripts/nls_rc.py ${CMAKE_SOURCE_DIR}/cmake/resource_only.ld
      COMMENT "Building the resource-only catalogue ${name}"
      VERBATIM)
    list(APPEND _cat_outputs ${dst})
  endforeach()
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/catalogues)
  add_custom_target(zvxfer_catalogues ALL DEPENDS ${_cat_outputs})
  add_dependencies(zvxfer zvxfer_catalogues)
  install(FILES ${_cat_outputs} DESTINATION ${CMAKE_INSTALL_BINDIR})

  # `zvxfer_register` writes the real registry keys for this build tree: the
  # component key naming bin\zvxfer.dll (a Windows path, with backslashes)
  # and the languages.  Cross-built, it runs through the emulator (wine,
  # whose drive Z: is the host's root) into the emulator's prefix.
  set(_dll "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/zvxfer.dll")
  if(CMAKE_CROSSCOMPILING AND CMAKE_HOST_UNIX)
    set(_dll "Z:${_dll}")
  endif()
  string(REPLACE "/" "\\" _dll "${_dll}")
  set(_reg ${CMAKE_CROSSCOMPILING_EMULATOR} reg add)
  add_custom_target(zvxfer_register
    COMMAND ${_reg} "HKCR\\${ZVXFER_COMPONENT_KEY}" /ve /d "${_dll}" /f
    COMMAND ${_reg} "HKLM\\${ZVXFER_LOCALE_KEY}" /v "Available UI Languages" /d "${ZVXFER_LANGUAGES}" /f
    COMMAND ${_reg} "HKLM\\${ZVXFER_LOCALE_KEY}" /v "Global Default UI Language" /d eng /f
    COMMENT "Registering ${_dll}"
    VERBATIM)
  return()
endif()

set(_cat_outputs)
foreach(cat ${ZVXFER_CATALOGUES})
  get_filename_component(name ${cat} NAME)
  set(dst ${CMAKE_BINARY_DIR}/share/zvxfer/${name})
  add_custom_command(OUTPUT ${dst} COMMAND ${CMAKE_COMMAND} -E copy ${cat} ${dst} DEPENDS ${cat})
  list(APPEND _cat_outputs ${dst})
endforeach()
add_custom_target(zvxfer_catalogues ALL DEPENDS ${_cat_outputs})
add_dependencies(zvxfer zvxfer_catalogues)

zvxfer_registry_text(_build_registry ${CMAKE_BINARY_DIR}/share)
file(WRITE ${CMAKE_BINARY_DIR}/etc/zvxfer/registry "${_build_registry}")

install(FILES ${ZVXFER_CATALOGUES} DESTINATION ${CMAKE_INSTALL_DATADIR}/zvxfer)
