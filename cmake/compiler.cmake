# Compiler settings shared by every target: include path, warnings, sanitizers.
add_library(kestro_build INTERFACE)
target_include_directories(kestro_build INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_definitions(kestro_build INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(kestro_build INTERFACE
  -Wall -Wextra -Wshadow -Wformat=2 -Wconversion
  # g++ 12 sees overlaps in std::string's own operator+ that are not there.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  $<$<BOOL:${KESTRO_WERROR}>:-Werror>)

if(KESTRO_SANITIZE)
  target_compile_definitions(kestro_build INTERFACE KESTRO_SANITIZED)
  target_compile_options(kestro_build INTERFACE
    -fsanitize=${KESTRO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    # These checks of clang++ need the C++ runtime, which libtmf does without.
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-fno-sanitize=function,vptr>)
  target_link_options(kestro_build INTERFACE -fsanitize=${KESTRO_SANITIZE})
endif()

# What the fuzzers run tells them which branches it took.
if(KESTRO_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KESTRO_FUZZ needs clang++: cmake --preset fuzz")
  endif()
  target_compile_options(kestro_build INTERFACE -fsanitize=fuzzer-no-link)
endif()
