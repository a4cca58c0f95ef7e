# Per-target settings shared by every target of the project; nothing here is global.
function(kx_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  target_compile_definitions(${target} PRIVATE QT_DEPRECATED_WARNINGS)
  if(KX_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  endif()
  if(KX_FUZZ)
    # Every target a fuzzer links gives it coverage; the fuzz targets add the driver themselves.
    # Debian's RapidJSON 1.1 offsets a null pointer inside its own stack, harmlessly: that one
    # check is left out.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link,address,undefined
                                             -fno-sanitize=pointer-overflow -fno-sanitize-recover=undefined
                                             -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  endif()
endfunction()
