# Shared by the target toolchain files: each sets ORVD_CROSS_ARCH, ORVD_CROSS_TRIPLET,
# ORVD_CROSS_QEMU and CMAKE_SYSTEM_PROCESSOR, then includes this file.
#
# The compilers are Debian's cross compilers with their own C library; the other target
# libraries (json-c, libwebsockets, GoogleTest) and the runtime qemu needs live in a sysroot
# that scripts/cross prepares once: ORVD_CROSS_SYSROOT, by default
# ~/.cache/orvd-cross/ARCH/sysroot (or $ORVD_CROSS_CACHE/ARCH/sysroot).
set(CMAKE_SYSTEM_NAME Linux)

if(NOT ORVD_CROSS_SYSROOT)
  if(DEFINED ENV{ORVD_CROSS_CACHE} AND NOT "$ENV{ORVD_CROSS_CACHE}" STREQUAL "")
    set(ORVD_CROSS_SYSROOT "$ENV{ORVD_CROSS_CACHE}/${ORVD_CROSS_ARCH}/sysroot")
  else()
    set(ORVD_CROSS_SYSROOT "$ENV{HOME}/.cache/orvd-cross/${ORVD_CROSS_ARCH}/sysroot")
  endif()
endif()
# try_compile projects see the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORVD_CROSS_SYSROOT)

set(CMAKE_C_COMPILER ${ORVD_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ORVD_CROSS_TRIPLET}-g++)

set(CMAKE_FIND_ROOT_PATH ${ORVD_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_LIBDIR}
    "${ORVD_CROSS_SYSROOT}/usr/lib/${ORVD_CROSS_TRIPLET}/pkgconfig:${ORVD_CROSS_SYSROOT}/usr/lib/pkgconfig:${ORVD_CROSS_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ORVD_CROSS_SYSROOT})
set(ENV{PKG_CONFIG_PATH} "")

# A 64-bit time_t on these 32-bit CPUs (glibc 2.34 and later), so that log stamps and clock
# readings go on past January 2038. No time_t crosses into json-c, libwebsockets or the
# device libraries, so their builds with a 32-bit one do not mind.
set(ORVD_CROSS_FLAGS "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")

# Multiarch headers of the sysroot's packages (openssl's configuration, for one), and the
# folders where the linker finds the libraries that the sysroot's libraries need.
set(ORVD_CROSS_LIBDIRS
    "${ORVD_CROSS_SYSROOT}/usr/lib/${ORVD_CROSS_TRIPLET}:${ORVD_CROSS_SYSROOT}/lib/${ORVD_CROSS_TRIPLET}")
set(CMAKE_C_FLAGS_INIT "${ORVD_CROSS_FLAGS} -isystem ${ORVD_CROSS_SYSROOT}/usr/include/${ORVD_CROSS_TRIPLET}")
set(CMAKE_CXX_FLAGS_INIT "${ORVD_CROSS_FLAGS} -isystem ${ORVD_CROSS_SYSROOT}/usr/include/${ORVD_CROSS_TRIPLET}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${ORVD_CROSS_LIBDIRS}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${ORVD_CROSS_LIBDIRS}")

# ctest (and gtest_discover_tests) run the target's programs through qemu-user; its -L makes
# the sysroot the programs' "/" for the dynamic loader and its libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR ${ORVD_CROSS_QEMU} -L ${ORVD_CROSS_SYSROOT})
