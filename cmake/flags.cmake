# Compiler flags of every target. Warnings are errors; our own code neither throws nor asks for types at run time.
add_compile_options(-Wall -Wextra -Wshadow -Wformat=2 -Wcast-align -Werror -fno-omit-frame-pointer)
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64)
if(NOT KEST_SANITIZE)
  add_compile_options(-ffunction-sections -fdata-sections -fstack-protector-strong)
  add_compile_definitions($<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,--gc-sections -Wl,-z,now -Wl,-z,relro)
else()
  # The check of virtual tables needs the type information that our code is built without.
  add_compile_options(-fsanitize=${KEST_SANITIZE} -fno-sanitize-recover=all -fno-sanitize=vptr)
  add_link_options(-fsanitize=${KEST_SANITIZE})
endif()
set(KEST_NO_EXCEPTIONS $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions> $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>)
if(KEST_FUZZ)
  # The fuzzer sees which of our code it reaches. Warnings are judged by the compiler that the programs are built with.
  add_compile_options(-fsanitize=fuzzer-no-link -Wno-error -Wno-format-nonliteral)
endif()
