# Headers that most sources include, compiled once: builds that nobody keeps (make test) take half the time.
# Off by default, because a compiler cache cannot see through them.
option(KEST_PCH "Precompile the headers that most sources include" OFF)
file(WRITE ${CMAKE_BINARY_DIR}/precompiled.cpp "")
if(KEST_PCH)
  # Out of a precompiled header the standard library counts as our own code, about whose texts g++ 12 warns without reason.
  add_compile_options(-Wno-array-bounds -Wno-restrict -Wno-stringop-overflow -Wno-stringop-overread)
endif()

function(kest_precompiled name)
  cmake_parse_arguments(ARG "" "" "HEADERS;OPTIONS;LIBRARIES" ${ARGN})
  if(KEST_PCH)
    add_library(${name} OBJECT ${CMAKE_BINARY_DIR}/precompiled.cpp)
    target_compile_options(${name} PRIVATE ${ARG_OPTIONS})
    target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES})
    target_precompile_headers(${name} PRIVATE ${ARG_HEADERS})
  endif()
endfunction()

function(kest_use_precompiled target name)
  if(KEST_PCH)
    target_precompile_headers(${target} REUSE_FROM ${name})
  endif()
endfunction()

kest_precompiled(precompiled_units OPTIONS ${KEST_NO_EXCEPTIONS} LIBRARIES dep_jansson
  HEADERS <algorithm> <atomic> <cerrno> <cstdio> <cstdlib> <cstring> <functional> <memory> <mutex> <string> <string_view>
          <unordered_map> <vector> <jansson.h>)
