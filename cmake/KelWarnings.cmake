# Warning and sanitizer flags shared by every target of the project.
add_library(kel_build_flags INTERFACE)
target_compile_options(kel_build_flags INTERFACE -Wall -Wextra -Wpedantic)
if(KEL_WERROR)
  target_compile_options(kel_build_flags INTERFACE -Werror)
endif()

if(KEL_SANITIZE)
  set(_kel_san "-fsanitize=${KEL_SANITIZE}")
  add_compile_options(${_kel_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(${_kel_san})
endif()

if(KEL_BUILD_FUZZ)
  # Coverage instrumentation for the whole library, so the fuzzers see its branches.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
