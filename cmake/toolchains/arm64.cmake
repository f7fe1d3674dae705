# Debian's cross compiler for arm64; libraries as debian.cmake says; programs run under qemu-user.
set(triplet aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(emulator qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
