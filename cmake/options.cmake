set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

set(VOSK_SANITIZERS "" CACHE STRING "Comma-separated sanitizers, empty for none")
option(VOSK_FUZZ "Build the libFuzzer targets (clang only)" OFF)

set(CMAKE_CXX_FLAGS_RELEASE "-O3 -g1")
set(CMAKE_CXX_FLAGS_SANITIZE "-O1 -g -fno-omit-frame-pointer")

find_program(VOSK_CCACHE ccache)
if(VOSK_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${VOSK_CCACHE})
endif()

# Everything of ours is built with these; assertions stay on in every build type.
add_library(vosk_flags INTERFACE)
target_compile_options(vosk_flags INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
# Sums and products are rounded one by one, so that a result does not depend on the machine. Both compilers would fuse
# them wherever the target has the instruction, g++ also inside a function built for one.
target_compile_options(vosk_flags INTERFACE -ffp-contract=off)

if(VOSK_SANITIZERS)
  add_compile_options(-fsanitize=${VOSK_SANITIZERS} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VOSK_SANITIZERS})
  # Locking all memory would include the sanitizer's shadow, terabytes of address space.
  add_compile_definitions(VOSK_SANITIZED)
endif()

if(VOSK_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

find_package(Threads REQUIRED)
link_libraries(Threads::Threads)
