# Libraries, found through pkg-config where it knows them, by their files elsewhere.
#
# Those that kest links are linked statically: each shared one costs a start-up more than a whole request does. Only the C library
# stays shared (user look-ups, Lua's C modules and OpenSSL are loaded at run time). A daemon starts once: veld links shared ones,
# which get their corrections from the system.
option(KEST_STATIC "Link the libraries of kest statically, libstdc++ too" ON)
option(VELD_STATIC "Link the libraries that only veld uses statically" OFF)
find_package(Threads REQUIRED)
find_package(PkgConfig QUIET)

# kest_dependency(name STATIC <bool> PACKAGES names of pkg-config... HEADER file [INCLUDE_SUFFIXES folders...] LIBRARY name):
# the target dep_${name}.
function(kest_dependency name)
  cmake_parse_arguments(ARG "" "STATIC;HEADER;LIBRARY" "PACKAGES;INCLUDE_SUFFIXES" ${ARGN})
  add_library(dep_${name} INTERFACE)
  if(PKG_CONFIG_FOUND)
    pkg_search_module(${name} QUIET ${ARG_PACKAGES})
  endif()
  find_path(${name}_INCLUDE_DIR ${ARG_HEADER} HINTS ${${name}_INCLUDE_DIRS} PATH_SUFFIXES ${ARG_INCLUDE_SUFFIXES} REQUIRED)
  target_include_directories(dep_${name} SYSTEM INTERFACE ${${name}_INCLUDE_DIR})
  set(libraries ${${name}_LIBRARIES})
  if(ARG_STATIC AND ${name}_STATIC_LIBRARIES)
    set(libraries ${${name}_STATIC_LIBRARIES})
  elseif(NOT libraries)
    set(libraries ${ARG_LIBRARY})
  endif()
  foreach(library IN LISTS libraries)
    if(library MATCHES "^(m|dl|pthread|c)$")
      continue() # parts of the C library, linked where they are needed
    endif()
    if(ARG_STATIC)
      find_library(${name}_${library}_ARCHIVE NAMES lib${library}.a HINTS ${${name}_LIBRARY_DIRS} ${${name}_LIBDIR} REQUIRED)
      target_link_libraries(dep_${name} INTERFACE ${${name}_${library}_ARCHIVE})
    else()
      find_library(${name}_${library}_SHARED NAMES ${library} HINTS ${${name}_LIBRARY_DIRS} ${${name}_LIBDIR} REQUIRED)
      target_link_libraries(dep_${name} INTERFACE ${${name}_${library}_SHARED})
    endif()
  endforeach()
endfunction()

kest_dependency(jansson STATIC ${KEST_STATIC} PACKAGES jansson HEADER jansson.h LIBRARY jansson)
kest_dependency(md STATIC ${KEST_STATIC} PACKAGES libmd HEADER md5.h LIBRARY md)
if(KEST_CLIENT AND KEST_LUA)
  kest_dependency(lua STATIC ${KEST_STATIC} PACKAGES lua5.3 lua-5.3 lua53 HEADER lua.hpp INCLUDE_SUFFIXES lua5.3 lua53 lua-5.3
    LIBRARY lua5.3)
  target_link_libraries(dep_lua INTERFACE dl)
endif()
if(KEST_TLS)
  find_package(OpenSSL REQUIRED)
endif()
