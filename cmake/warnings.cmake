# Warnings and sanitizers shared by every target of the project.
function(zvxfer_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(ZVXFER_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

if(ZVXFER_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
