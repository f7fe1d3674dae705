# kest_unit(name [FOLDERS ...] [DEPENDS ...] [LINKS ...]): every .cpp of the current folder, and of its FOLDERS, as the static
# library `name`. A folder is a unit. DEPENDS names what it is built on: libraries, and the units that it may include from, which
# stand on lower floors, so they were added before it. The build fails where it includes anything else of this project.
# LINKS names units of which it only needs the code, behind headers of others.
function(kest_unit name)
  cmake_parse_arguments(ARG "" "" "FOLDERS;DEPENDS;LINKS" ${ARGN})
  set(folders ${CMAKE_CURRENT_SOURCE_DIR})
  foreach(folder IN LISTS ARG_FOLDERS)
    list(APPEND folders ${CMAKE_CURRENT_SOURCE_DIR}/${folder})
  endforeach()
  list(TRANSFORM folders APPEND "/*.cpp" OUTPUT_VARIABLE patterns)
  file(GLOB sources CONFIGURE_DEPENDS ${patterns})
  list(TRANSFORM folders APPEND "/*.h" OUTPUT_VARIABLE patterns)
  file(GLOB headers CONFIGURE_DEPENDS ${patterns})
  kest_check_includes(${name} FOLDERS ${folders} DEPENDS ${ARG_DEPENDS} FILES ${sources} ${headers})

  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  if(sources)
    add_library(${name} STATIC ${sources})
    target_compile_options(${name} PRIVATE ${KEST_NO_EXCEPTIONS})
    kest_use_precompiled(${name} precompiled_units)
    set_property(GLOBAL APPEND PROPERTY KEST_UNITS ${name})
    set(scope PUBLIC)
  else()
    add_library(${name} INTERFACE)
    set(scope INTERFACE)
  endif()
  add_dependencies(${name} ${name}_includes)
  target_include_directories(${name} ${scope} ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} ${scope} ${ARG_DEPENDS} ${ARG_LINKS})
endfunction()

# The target ${name}_includes, which the unit is built behind: whether its files include only from the folders they may.
function(kest_check_includes name)
  cmake_parse_arguments(ARG "" "" "FOLDERS;DEPENDS;FILES" ${ARGN})
  set(allowed ${ARG_FOLDERS})
  foreach(unit IN LISTS ARG_DEPENDS)
    get_property(folders GLOBAL PROPERTY KEST_FOLDERS_${unit})
    if(NOT folders AND NOT TARGET ${unit})
      message(FATAL_ERROR "The unit ${name} depends on ${unit}, which is no library and no unit of a lower floor.")
    endif()
    list(APPEND allowed ${folders})
  endforeach()
  set_property(GLOBAL PROPERTY KEST_FOLDERS_${name} ${ARG_FOLDERS})
  set(script ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/check_includes.cmake)
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${name}.includes)
  add_custom_command(OUTPUT ${stamp} VERBATIM
    COMMAND ${CMAKE_COMMAND} -DUNIT=${name} -DROOT=${PROJECT_SOURCE_DIR} "-DALLOWED=${allowed}" "-DFILES=${ARG_FILES}" -P ${script}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${ARG_FILES} ${script} COMMENT "Checking what ${name} includes")
  add_custom_target(${name}_includes ALL DEPENDS ${stamp})
endfunction()
