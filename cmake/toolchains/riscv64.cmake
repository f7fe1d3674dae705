# Debian's cross compiler for riscv64; libraries as debian.cmake says; programs run under qemu-user.
set(triplet riscv64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR riscv64)
set(emulator qemu-riscv64-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
