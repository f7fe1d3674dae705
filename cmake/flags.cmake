# Compiler flags of every target. They stand before those of whoever builds (CMAKE_CXX_FLAGS, CXXFLAGS, a build type), which so have
# the last word. Our own code neither throws nor asks for types at run time.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)
include(CheckLinkerFlag)

option(KEST_WERROR "Warnings are errors: for developers, whose compiler is known" OFF)
set(flags -Wall -Wextra -Wshadow -Wformat=2 -Wcast-align)
set(link_flags "")
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

# Without a word from whoever builds about optimisation: the choice that the measurements were made with. Code of which the client
# runs little in one request is made small (kest_make_small).
string(TOUPPER "${CMAKE_BUILD_TYPE}" type)
if("${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${type}}" MATCHES "(^| )-O" OR NOT type MATCHES "^(NONE)?$" OR KEST_SANITIZE)
  set(KEST_CHOOSES_OPTIMISATION OFF)
else()
  set(KEST_CHOOSES_OPTIMISATION ON)
  list(APPEND flags -O2 -g -DNDEBUG)
endif()

if(KEST_SANITIZE)
  # The check of virtual tables needs the type information that our code is built without.
  list(APPEND flags -fno-omit-frame-pointer)
  add_compile_options(-fsanitize=${KEST_SANITIZE} -fno-sanitize-recover=all -fno-sanitize=vptr)
  add_link_options(-fsanitize=${KEST_SANITIZE})
else()
  list(APPEND flags -ffunction-sections -fdata-sections -fstack-protector-strong)
  list(APPEND link_flags -Wl,--gc-sections -Wl,-z,now -Wl,-z,relro)
  foreach(flag -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
    string(MAKE_C_IDENTIFIER "KEST_HAS${flag}" known)
    check_cxx_compiler_flag(${flag} ${known})
    if(${known})
      list(APPEND flags ${flag})
    endif()
  endforeach()
  check_pie_supported(OUTPUT_VARIABLE reason LANGUAGES CXX)
  if(CMAKE_CXX_LINK_PIE_SUPPORTED)
    list(APPEND flags -fPIE)
    list(APPEND link_flags -pie)
  endif()
  # One who builds with a level of _FORTIFY_SOURCE, or whose compiler has one of its own, keeps it.
  set(CMAKE_REQUIRED_QUIET ON)
  set(CMAKE_REQUIRED_FLAGS "${CMAKE_CXX_FLAGS_${type}}")
  check_cxx_source_compiles("
    #if defined(_FORTIFY_SOURCE) || !defined(__OPTIMIZE__)
    #error
    #endif
    int main() {}" KEST_ASKS_FORTIFY)
  unset(CMAKE_REQUIRED_FLAGS)
  if(KEST_CHOOSES_OPTIMISATION OR KEST_ASKS_FORTIFY)
    if(NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE")
      list(APPEND flags -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    endif()
  endif()
  # Nothing unwinds a stack but a debugger, which has tables of its own.
  list(APPEND flags -fno-asynchronous-unwind-tables -fno-unwind-tables -fomit-frame-pointer)
  # Relocations that the C library's loader knows to unpack.
  check_linker_flag(CXX -Wl,--fatal-warnings,-z,pack-relative-relocs KEST_HAS_PACKED_RELOCATIONS)
  check_cxx_source_compiles("
    #include <features.h>
    #if !defined(__GLIBC__) || !__GLIBC_PREREQ(2, 36)
    #error
    #endif
    int main() {}" KEST_LOADER_UNPACKS)
  if(KEST_HAS_PACKED_RELOCATIONS AND KEST_LOADER_UNPACKS)
    list(APPEND link_flags -Wl,-z,pack-relative-relocs)
  endif()
endif()

# Optimisation across files, for the programs that are kept; linking hundreds of tests with it would take too long.
set(KEST_LTO AUTO CACHE STRING "Optimise across files (ON, OFF; AUTO: where no tests are built)")
if(KEST_LTO STREQUAL "AUTO")
  if(KEST_CHOOSES_OPTIMISATION AND NOT KEST_TESTS AND NOT KEST_FUZZ AND NOT KEST_BENCH AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set(lto ON)
  endif()
else()
  set(lto ${KEST_LTO})
endif()
if(lto)
  include(CheckIPOSupported)
  check_ipo_supported(RESULT lto LANGUAGES CXX OUTPUT reason)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ${lto})
endif()

# The same bytes wherever the sources lie.
list(APPEND flags -ffile-prefix-map=${PROJECT_BINARY_DIR}=build -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)

if(KEST_WERROR)
  list(APPEND flags -Werror)
endif()
list(JOIN flags " " flags)
list(JOIN link_flags " " link_flags)
set(CMAKE_CXX_FLAGS "${flags} ${CMAKE_CXX_FLAGS}")
set(CMAKE_EXE_LINKER_FLAGS "${link_flags} ${CMAKE_EXE_LINKER_FLAGS}")
set(KEST_NO_EXCEPTIONS $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions> $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>)
if(KEST_FUZZ)
  # The fuzzer sees which of our code it reaches. Warnings are judged by the compiler that the programs are built with.
  add_compile_options(-fsanitize=fuzzer-no-link -Wno-error -Wno-format-nonliteral)
endif()

# kest_make_small(target...): these are made small rather than fast, unless somebody else has chosen. Headers that are compiled
# ahead go with one choice for all.
function(kest_make_small)
  if(KEST_CHOOSES_OPTIMISATION AND NOT KEST_PCH)
    foreach(target IN LISTS ARGN)
      target_compile_options(${target} PRIVATE -Os)
    endforeach()
  endif()
endfunction()
