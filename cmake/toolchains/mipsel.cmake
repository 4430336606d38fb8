# 32-bit MIPS, little-endian: Debian's mipsel-linux-gnu cross compiler, tests run through qemu-mipsel.
set(ORVD_CROSS_ARCH mipsel)
set(ORVD_CROSS_TRIPLET mipsel-linux-gnu)
set(ORVD_CROSS_QEMU qemu-mipsel)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/cross_common.cmake)
