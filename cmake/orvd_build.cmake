# Compiler settings shared by every target: warnings are errors, sanitizers by option.

add_compile_options(-Wall -Wextra -Werror -Wshadow -Wformat=2 -Wno-format-nonliteral)
add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)

if(ORVD_SANITIZE STREQUAL "address")
  set(ORVD_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined
      -fno-omit-frame-pointer)
elseif(ORVD_SANITIZE STREQUAL "thread")
  set(ORVD_SANITIZER_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT ORVD_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ORVD_SANITIZE must be empty, address or thread")
endif()

if(ORVD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "ORVD_FUZZ needs clang (CC=clang CXX=clang++)")
  endif()
  # Libraries get coverage instrumentation; the fuzz targets add the libFuzzer driver.
  set(ORVD_SANITIZER_FLAGS -fsanitize=fuzzer-no-link,address,undefined
      -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
endif()

if(ORVD_SANITIZER_FLAGS)
  add_compile_options(${ORVD_SANITIZER_FLAGS})
  add_link_options(${ORVD_SANITIZER_FLAGS})
endif()

# The shipping build (MinSizeRel) is built for flash size: unused functions and data dropped
# at link time, only what must be seen outside a binary exported, and link-time optimisation
# across the libraries. The measurements behind each flag, and the ones left out, are in
# docs/performance.md ("Footprint"); scripts/footprint builds and measures orvd this way.
# Exceptions stay on: a worker's exception ends the daemon through its handler.
if(CMAKE_BUILD_TYPE STREQUAL "MinSizeRel" AND ORVD_SANITIZE STREQUAL "" AND NOT ORVD_FUZZ)
  set(orvd_small_default ON)
else()
  set(orvd_small_default OFF)
endif()
option(ORVD_SMALL "Build for flash size: section GC, hidden symbols, LTO (default in MinSizeRel)"
       ${orvd_small_default})
if(ORVD_SMALL)
  add_compile_options(-ffunction-sections -fdata-sections)
  add_link_options(LINKER:--gc-sections)
  # Hidden by default: on MIPS every global symbol of a position-independent executable
  # otherwise gets a dynamic symbol and a global GOT entry. What must stay visible says so
  # itself (the ioctl() of libvrtl.so).
  set(CMAKE_CXX_VISIBILITY_PRESET hidden)
  set(CMAKE_C_VISIBILITY_PRESET hidden)
  set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
  include(CheckIPOSupported)
  check_ipo_supported(RESULT orvd_ipo_supported OUTPUT orvd_ipo_output LANGUAGES C CXX)
  if(NOT orvd_ipo_supported)
    message(FATAL_ERROR "ORVD_SMALL needs link-time optimisation: ${orvd_ipo_output}")
  endif()
  # Static libraries go through gcc-ar/gcc-ranlib (CMake picks them for IPO).
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
endif()

find_package(Threads REQUIRED)
