# Warning and sanitizer flags shared by every target of the project, through one interface target.
add_library(velmora_flags INTERFACE)
# Floating-point contraction is off: the kernels promise bit-exact arithmetic on every processor.
target_compile_options(velmora_flags INTERFACE -Wall -Wextra -ffp-contract=off)
if(VELMORA_WERROR)
  target_compile_options(velmora_flags INTERFACE -Werror)
endif()
if(VELMORA_SANITIZE)
  target_compile_options(velmora_flags INTERFACE -fsanitize=${VELMORA_SANITIZE} -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=all)
  target_link_options(velmora_flags INTERFACE -fsanitize=${VELMORA_SANITIZE})
  # GCC's flow analysis sees through the sanitizers' instrumentation poorly and reports
  # uninitialised values inside the standard library (std::function in std::regex) that the
  # uninstrumented builds, which keep the warning, show not to exist.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(velmora_flags INTERFACE -Wno-maybe-uninitialized)
  endif()
endif()
# The fuzz targets need every object instrumented for libFuzzer's coverage feedback.
if(VELMORA_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "VELMORA_BUILD_FUZZERS needs Clang (libFuzzer)")
  endif()
  target_compile_options(velmora_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
