# Warnings and sanitizers, the same for every target of this tree.

add_library(zmqwriter_options INTERFACE)
target_compile_options(zmqwriter_options INTERFACE -Wall -Wextra)
if(ZMQWRITER_WERROR)
  target_compile_options(zmqwriter_options INTERFACE -Werror)
endif()

if(ZMQWRITER_SANITIZE)
  # Instrumented code takes half as long again to compile with -O1, and most tests wait rather than
  # compute. src/CMakeLists.txt says why the plug-in has it.
  add_compile_options(-fsanitize=${ZMQWRITER_SANITIZE} -fno-omit-frame-pointer -O0 -g1)
  if(ZMQWRITER_SANITIZE MATCHES undefined)
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # With its sanitizers GCC takes members of standard library types for uninitialised.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
  add_link_options(-fsanitize=${ZMQWRITER_SANITIZE})
endif()
