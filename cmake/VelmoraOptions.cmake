# Warning and sanitizer flags shared by every target of the project, through one interface target.
add_library(velmora_flags INTERFACE)
# Floating-point contraction is off: the kernels promise bit-exact arithmetic on every processor.
target_compile_options(velmora_flags INTERFACE -Wall -Wextra -ffp-contract=off)
if(VELMORA_WERROR)
  target_compile_options(velmora_flags INTERFACE -Werror)
endif()
if(VELMORA_SANITIZE)
  target_compile_options(velmora_flags INTERFACE -fsanitize=${VELMORA_SANITIZE} -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=undefined)
  target_link_options(velmora_flags INTERFACE -fsanitize=${VELMORA_SANITIZE})
  # GCC's flow analysis sees through the sanitizers' instrumentation poorly and reports
  # uninitialised values inside the standard library (std::function in std::regex) that the
  # uninstrumented builds, which keep the warning, show not to exist.
  target_compile_options(velmora_flags INTERFACE -Wno-maybe-uninitialized)
endif()
