# 32-bit MIPS, big-endian: Debian's mips-linux-gnu cross compiler, tests run through qemu-mips.
set(ORVD_CROSS_ARCH mips)
set(ORVD_CROSS_TRIPLET mips-linux-gnu)
set(ORVD_CROSS_QEMU qemu-mips)
set(CMAKE_SYSTEM_PROCESSOR mips)
include(${CMAKE_CURRENT_LIST_DIR}/cross_common.cmake)
