# What the toolchain files of Debian's architectures share; they set triplet, CMAKE_SYSTEM_PROCESSOR and emulator. Libraries come
# from the folder KEST_SYSROOT (scripts/sysroot fills one; one in the build's folder is found); without it from where apt's multiarch
# installs them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(own "")
if(EXISTS ${CMAKE_BINARY_DIR}/sysroot)
  set(own ${CMAKE_BINARY_DIR}/sysroot)
endif()
set(KEST_SYSROOT "${own}" CACHE PATH "Where the libraries for the other machine are")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KEST_SYSROOT)
set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator})
if(KEST_SYSROOT)
  list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -L ${KEST_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH ${KEST_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${KEST_SYSROOT})
  set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${KEST_SYSROOT}/usr/include/${triplet})
  # Libraries that those libraries need.
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${KEST_SYSROOT}/usr/lib/${triplet} -Wl,-rpath-link,${KEST_SYSROOT}/lib/${triplet}")
endif()
# None of the build machine's own libraries is to be found.
set(CMAKE_IGNORE_PATH /usr/lib/${CMAKE_HOST_SYSTEM_PROCESSOR}-linux-gnu /lib/${CMAKE_HOST_SYSTEM_PROCESSOR}-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} ${KEST_SYSROOT}/usr/lib/${triplet}/pkgconfig:${KEST_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
