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

find_package(Threads REQUIRED)
