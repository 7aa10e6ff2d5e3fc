# Message catalogues and the registry file that lets the library find them.
# In the build tree: <build>/share/zvxfer/*.nls and <build>/etc/zvxfer/registry;
# installed: <datadir>/zvxfer and <sysconfdir>/zvxfer/registry (the registry
# is written by cmake/install.cmake, naming the prefix installed to).
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
