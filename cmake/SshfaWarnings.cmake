function(sshfa_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    -Wsign-conversion -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual -Wnull-dereference)
  # GCC 12 at -O3 reports std::string concatenation as overlapping memcpy
  # (GCC bug 105651), in our code and in code it inlines from libstdc++.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  if(SSHFA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
