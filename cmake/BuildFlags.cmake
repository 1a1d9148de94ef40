# Flags that every target of the project is built with.
add_library(vask_build_flags INTERFACE)

target_compile_options(vask_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  # Floating-point results are part of the contract: the compiler may not fuse
  # a multiplication with an addition, on any instruction set.
  -ffp-contract=off
  # Nobody reads errno or the floating-point flags; without them the compiler
  # may turn a conditional into a blend. No value changes by either.
  -fno-math-errno -fno-trapping-math)

# Says that vector arguments are passed in another way under another instruction
# set or in an old release; the project passes none to a function that is called.
target_compile_options(vask_build_flags INTERFACE -Wno-psabi)

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
  # The baseline; wider instruction sets are picked at run time, kernel/isa.h.
  target_compile_options(vask_build_flags INTERFACE -march=x86-64-v2)
endif()

if(VASK_WARNINGS_AS_ERRORS)
  target_compile_options(vask_build_flags INTERFACE -Werror)
endif()

if(VASK_HOSTILE)
  target_compile_definitions(vask_build_flags INTERFACE VASK_HOSTILE)
endif()

if(VASK_BASELINE_ONLY)
  target_compile_definitions(vask_build_flags INTERFACE VASK_BASELINE_ONLY)
endif()

if(VASK_SANITIZE)
  target_compile_options(vask_build_flags INTERFACE
    -fsanitize=${VASK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(vask_build_flags INTERFACE -fsanitize=${VASK_SANITIZE})
endif()
