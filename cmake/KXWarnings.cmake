# Per-target settings shared by every target of the project; nothing here is global.
function(kx_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  target_compile_definitions(${target} PRIVATE QT_DEPRECATED_WARNINGS)
  if(KX_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  endif()
endfunction()
