# musl on this kind of processor: the compiler and the libraries that scripts/sysroot makes from Debian's sources, in KEST_SYSROOT (one
# in the build's folder is found).
set(triplet x86_64-linux-musl)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(emulator "")
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
set(CMAKE_C_COMPILER ${KEST_SYSROOT}/bin/${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${KEST_SYSROOT}/bin/${triplet}-g++)
# OpenSSL, which is loaded at run time, is found from the build's folder.
set(CMAKE_BUILD_RPATH ${KEST_SYSROOT}/usr/lib/${triplet})
