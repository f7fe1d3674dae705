# Read behind project() of the copy in which the mutants are built: how the files with mutants in them (KEST_MUTATED) are compiled. All
# others are compiled as ever, so that a compiler cache has them.
function(kest_compile_mutants)
  get_property(units GLOBAL PROPERTY KEST_UNITS)
  foreach(unit IN LISTS units)
    set_source_files_properties(${KEST_MUTATED} TARGET_DIRECTORY ${unit} PROPERTIES
      COMPILE_OPTIONS "-O1;-g0;-w;-Wno-narrowing;-include;${PROJECT_SOURCE_DIR}/base/choice.h")
  endforeach()
endfunction()
cmake_language(DEFER CALL kest_compile_mutants)
