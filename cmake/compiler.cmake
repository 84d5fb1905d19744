# Compiler settings shared by every target: include path, warnings, hardening, sanitizers.
add_library(kestro_build INTERFACE)
# Programs of tests are nobody's to attack: folders of theirs set KESTRO_NO_HARDENING.
define_property(TARGET PROPERTY KESTRO_NO_HARDENING INITIALIZE_FROM_VARIABLE KESTRO_NO_HARDENING)
set(product $<NOT:$<BOOL:$<TARGET_PROPERTY:KESTRO_NO_HARDENING>>>)
target_include_directories(kestro_build INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_definitions(kestro_build INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(kestro_build INTERFACE
  -Wall -Wextra -Wshadow -Wformat=2 -Wconversion
  # Never a format that comes from data, whatever becomes of other warnings.
  $<${product}:-Werror=format-security$<SEMICOLON>-Werror=format-nonliteral>
  # g++ 12 sees overlaps in std::string's own operator+ that are not there.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  $<$<BOOL:${KESTRO_WERROR}>:-Werror>)

# What makes a fault in memory hard to use, in every build that is not for finding faults.  Flags
# that a compiler lacks are left out; a packager's own level of fortification stays.
include(CheckCXXCompilerFlag)
foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "KESTRO_HAVE${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known} AND NOT KESTRO_SANITIZE AND NOT KESTRO_COVERAGE)
    target_compile_options(kestro_build INTERFACE $<${product}:${flag}>)
  endif()
endforeach()
if(NOT KESTRO_SANITIZE AND NOT KESTRO_COVERAGE)
  if(NOT "${CMAKE_CXX_FLAGS}" MATCHES "_FORTIFY_SOURCE")
    # It needs optimisation.
    target_compile_options(kestro_build INTERFACE
      $<$<AND:${product},$<NOT:$<CONFIG:Debug>>>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=2>)
  endif()
  target_compile_options(kestro_build INTERFACE
    $<$<AND:${product},$<NOT:$<BOOL:$<TARGET_PROPERTY:POSITION_INDEPENDENT_CODE>>>>:-fPIE>)
  target_link_options(kestro_build INTERFACE
    $<$<AND:${product},$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>>:-pie>
    $<${product}:-Wl,-z,relro,-z,now,-z,noexecstack>)
endif()

if(KESTRO_SANITIZE)
  target_compile_definitions(kestro_build INTERFACE KESTRO_SANITIZED)
  target_compile_options(kestro_build INTERFACE
    -fsanitize=${KESTRO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    # These checks of clang++ need the C++ runtime, which libtmf does without.
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-fno-sanitize=function,vptr>)
  target_link_options(kestro_build INTERFACE -fsanitize=${KESTRO_SANITIZE})
endif()

# Which lines and branches of the product were run is counted; in tests it is not.  Lines stay as
# they are written, so nothing is optimised; programs with threads lose no count.
if(KESTRO_COVERAGE)
  target_compile_options(kestro_build INTERFACE
    $<${product}:-O0$<SEMICOLON>--coverage$<SEMICOLON>-fprofile-update=atomic>)
  target_link_options(kestro_build INTERFACE --coverage)
endif()

# What the fuzzers run tells them which branches it took.
if(KESTRO_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KESTRO_FUZZ needs clang++: cmake --preset fuzz")
  endif()
  target_compile_options(kestro_build INTERFACE -fsanitize=fuzzer-no-link)
endif()
