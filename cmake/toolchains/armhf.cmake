# 32-bit ARM, hard float (ARMv7): Debian's arm-linux-gnueabihf cross compiler, tests run through qemu-arm.
set(ORVD_CROSS_ARCH armhf)
set(ORVD_CROSS_TRIPLET arm-linux-gnueabihf)
set(ORVD_CROSS_QEMU qemu-arm)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross_common.cmake)
