# The libraries that kest links are linked statically: each shared one costs a start-up more than a whole request does.
# Only the C library stays shared (user look-ups, Lua's C modules and OpenSSL are loaded at run time).
find_package(Threads REQUIRED)

function(kest_static_dependency name)
  cmake_parse_arguments(ARG "" "HEADER;INCLUDE_SUFFIX" "LIBRARIES" ${ARGN})
  add_library(dep_${name} INTERFACE)
  find_path(${name}_INCLUDE_DIR ${ARG_HEADER} PATH_SUFFIXES ${ARG_INCLUDE_SUFFIX} REQUIRED)
  target_include_directories(dep_${name} SYSTEM INTERFACE ${${name}_INCLUDE_DIR})
  foreach(library IN LISTS ARG_LIBRARIES)
    find_library(${name}_${library}_LIBRARY NAMES lib${library}.a REQUIRED)
    target_link_libraries(dep_${name} INTERFACE ${${name}_${library}_LIBRARY})
  endforeach()
endfunction()

kest_static_dependency(jansson HEADER jansson.h LIBRARIES jansson)
kest_static_dependency(lua HEADER lua.h INCLUDE_SUFFIX lua5.3 LIBRARIES lua5.3)
target_link_libraries(dep_lua INTERFACE dl)
kest_static_dependency(md HEADER md5.h LIBRARIES md)
