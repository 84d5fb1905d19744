# Compilers for machines of other kinds, whose builds of a library use the same files as this one: 32-bit
# words, and big-endian words (s390x) under an emulator.  What is not installed is left out:
#   MACHINES_HAVE_M32, MACHINES_M32       the compiler makes 32-bit programs; options that it takes
#   MACHINES_CXX_S390X, MACHINES_QEMU_S390X   both or none
#   MACHINES_WARNINGS                     the warnings of this build; the others have no sanitizers

# The headers of the machine's own word size serve both, but lie where only some compilers look.
set(MACHINES_M32 -m32)
if(CMAKE_LIBRARY_ARCHITECTURE)
  list(APPEND MACHINES_M32 -isystem /usr/include/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
if(NOT MACHINES_HAVE_M32)
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/m32.cpp
    "#include <string>\n#include <sys/socket.h>\nint main(int, char **v) { return std::string(v[0]).empty(); }\n")
  try_compile(MACHINES_HAVE_M32 ${CMAKE_CURRENT_BINARY_DIR}/m32 ${CMAKE_CURRENT_BINARY_DIR}/m32.cpp
    COMPILE_DEFINITIONS ${MACHINES_M32} LINK_OPTIONS -m32)
endif()
if(NOT MACHINES_HAVE_M32)
  message(STATUS "No 32-bit compiler: files are not exchanged between word sizes (Debian package g++-12-multilib)")
endif()

find_program(MACHINES_CXX_S390X s390x-linux-gnu-g++)
find_program(MACHINES_QEMU_S390X qemu-s390x)
if(NOT MACHINES_CXX_S390X OR NOT MACHINES_QEMU_S390X)
  message(STATUS "No s390x compiler or emulator: files are not exchanged between byte orders (Debian packages g++-s390x-linux-gnu and qemu-user)")
  unset(MACHINES_CXX_S390X)
  unset(MACHINES_CXX_S390X CACHE)
endif()

set(MACHINES_WARNINGS -Wall -Wextra -Wshadow -Wformat=2 -Wconversion)
if(KESTRO_WERROR)
  list(APPEND MACHINES_WARNINGS -Werror)
endif()

# machines_m32(NAME SOURCES...): a program with 32-bit words.
function(machines_m32 name)
  add_executable(${name} ${ARGN})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_definitions(${name} PRIVATE _FILE_OFFSET_BITS=64)
  target_compile_options(${name} PRIVATE ${MACHINES_M32} ${MACHINES_WARNINGS}
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>) # false alarms in the library's strings
  target_link_options(${name} PRIVATE -m32)
endfunction()

# machines_s390x(NAME HEADERS SOURCES...): a big-endian program, by the target NAME, in the present build
# folder.  Compiled a file at a time, so that what has not changed is not compiled again, and for a short build.
function(machines_s390x name headers)
  set(objects)
  foreach(source ${ARGN})
    cmake_path(ABSOLUTE_PATH source)
    cmake_path(GET source STEM stem)
    set(object ${CMAKE_CURRENT_BINARY_DIR}/${name}_${stem}.o)
    add_custom_command(OUTPUT ${object}
      COMMAND ${CMAKE_CXX_COMPILER_LAUNCHER} ${MACHINES_CXX_S390X} -std=c++20 -O0 -D_FILE_OFFSET_BITS=64
        -I${PROJECT_SOURCE_DIR} ${MACHINES_WARNINGS} -Wno-restrict -c -o ${object} ${source}
      DEPENDS ${source} ${headers}
      COMMENT "Compiling ${stem} for s390x" VERBATIM)
    list(APPEND objects ${object})
  endforeach()
  add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${name}
    COMMAND ${MACHINES_CXX_S390X} -static -o ${CMAKE_CURRENT_BINARY_DIR}/${name} ${objects}
    DEPENDS ${objects} COMMENT "Linking ${name}" VERBATIM)
  add_custom_target(${name}_program DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/${name})
endfunction()
