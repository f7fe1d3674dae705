# Debian's cross compiler for mipsel; libraries as debian.cmake says; programs run under qemu-user.
set(triplet mipsel-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(emulator qemu-mipsel-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
