# Debian's cross compiler for armhf; libraries as debian.cmake says; programs run under qemu-user.
set(triplet arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(emulator qemu-arm-static)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # no notes about what another compiler would have done
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
