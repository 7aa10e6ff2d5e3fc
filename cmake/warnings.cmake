# Warnings and sanitizers shared by every target of the project.
function(zvxfer_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  # GCC 12 reports impossible overlaps in std::string's operator+ at -O2
  # (a false positive fixed in GCC 13); everything else stays on.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  if(ZVXFER_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

if(ZVXFER_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
