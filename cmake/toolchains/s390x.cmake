# Debian's cross compiler for s390x; libraries as debian.cmake says; programs run under qemu-user.
set(triplet s390x-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(emulator qemu-s390x-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
