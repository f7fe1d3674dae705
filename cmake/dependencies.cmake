# Libraries, found through pkg-config where it knows them, by their files elsewhere.
#
# Those that kest links are linked statically: each shared one costs a start-up more than a whole request does. Only the C library
# stays shared (user look-ups, Lua's C modules and OpenSSL are loaded at run time). A daemon starts once: veld links shared ones,
# which get their corrections from the system.
option(KEST_STATIC "Link the libraries of kest statically, libstdc++ too" ON)
option(VELD_STATIC "Link the libraries of veld statically, but for OpenSSL" OFF)
find_package(Threads REQUIRED)
find_package(PkgConfig QUIET)

# Compilers for some processors leave atomic operations on single bytes to a library of their own.
check_cxx_source_compiles("
  #include <atomic>
  std::atomic<bool> flag;
  int main() { return flag.exchange(true); }" KEST_HAS_ATOMIC_BYTES)
if(NOT KEST_HAS_ATOMIC_BYTES)
  if(KEST_STATIC)
    string(APPEND CMAKE_CXX_STANDARD_LIBRARIES " -l:libatomic.a")
  else()
    string(APPEND CMAKE_CXX_STANDARD_LIBRARIES " -latomic")
  endif()
endif()

# kest_dependency(name [CLIENT] [DAEMON] PACKAGES names of pkg-config... HEADER file [INCLUDE_SUFFIXES folders...] LIBRARY name):
# the target dep_${name}, for the program or programs named. A program that links the library in its own way says which it is with
# the property KEST_PROGRAM; tests link as kest does, where it is built.
function(kest_dependency name)
  cmake_parse_arguments(ARG "CLIENT;DAEMON" "HEADER;LIBRARY" "PACKAGES;INCLUDE_SUFFIXES" ${ARGN})
  add_library(dep_${name} INTERFACE)
  if(PKG_CONFIG_FOUND)
    pkg_search_module(${name} QUIET ${ARG_PACKAGES})
  endif()
  find_path(${name}_INCLUDE_DIR ${ARG_HEADER} HINTS ${${name}_INCLUDE_DIRS} PATH_SUFFIXES ${ARG_INCLUDE_SUFFIXES} REQUIRED)
  target_include_directories(dep_${name} SYSTEM INTERFACE ${${name}_INCLUDE_DIR})
  set(libraries "")
  if(ARG_CLIENT AND KEST_CLIENT)
    kest_find_libraries(${name} ${KEST_STATIC} ${ARG_LIBRARY} libraries)
  endif()
  if(ARG_DAEMON AND KEST_DAEMON)
    kest_find_libraries(${name} ${VELD_STATIC} ${ARG_LIBRARY} daemons)
    if(NOT libraries)
      set(libraries ${daemons})
    elseif(NOT libraries STREQUAL daemons)
      set(is_daemon $<STREQUAL:$<TARGET_PROPERTY:KEST_PROGRAM>,daemon>)
      set(libraries "$<${is_daemon}:${daemons}>" "$<$<NOT:${is_daemon}>:${libraries}>")
    endif()
  endif()
  target_link_libraries(dep_${name} INTERFACE ${libraries})
endfunction()

# The files of a library, as pkg-config told of it: archives if `static`, shared objects otherwise.
function(kest_find_libraries name static default out)
  set(libraries ${${name}_LIBRARIES})
  if(static AND ${name}_STATIC_LIBRARIES)
    set(libraries ${${name}_STATIC_LIBRARIES})
  elseif(NOT libraries)
    set(libraries ${default})
  endif()
  set(found "")
  foreach(library IN LISTS libraries)
    if(library MATCHES "^(m|dl|pthread|c)$")
      continue() # parts of the C library, linked where they are needed
    endif()
    if(static)
      set(file ${name}_${library}_ARCHIVE)
      set(names lib${library}.a)
    else()
      set(file ${name}_${library}_SHARED)
      set(names ${library})
    endif()
    find_library(${file} NAMES ${names} HINTS ${${name}_LIBRARY_DIRS} ${${name}_LIBDIR} REQUIRED)
    list(APPEND found ${${file}})
  endforeach()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()

kest_dependency(jansson CLIENT DAEMON PACKAGES jansson HEADER jansson.h LIBRARY jansson)
kest_dependency(md CLIENT DAEMON PACKAGES libmd HEADER md5.h LIBRARY md)
if(KEST_LUA)
  kest_dependency(lua CLIENT DAEMON PACKAGES lua5.3 lua-5.3 lua53 HEADER lua.hpp INCLUDE_SUFFIXES lua5.3 lua53 lua-5.3
    LIBRARY lua5.3)
  target_link_libraries(dep_lua INTERFACE dl)
endif()
if(KEST_TLS)
  find_package(OpenSSL REQUIRED)
endif()
