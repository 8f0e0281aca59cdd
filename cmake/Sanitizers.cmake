# A second build of the same tree with AddressSanitizer and UndefinedBehaviorSanitizer;
# scripts/test configures it in its own build folder and runs the same tests there.
option(TREMORA_SANITIZE "Build with -fsanitize=address,undefined" OFF)

# A third build with ThreadSanitizer for the tests of the analysis core that run work on
# several threads. scripts/test builds only those tests, with tests/sanitizers/tsan.supp.
option(TREMORA_TSAN "Build with -fsanitize=thread" OFF)

# The libFuzzer target in fuzz/, built by scripts/fuzz with clang. Our own code is compiled
# with coverage instrumentation so that the fuzzer can tell which inputs reach new code.
option(TREMORA_FUZZ "Build the fuzz target (clang only) with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)

if((TREMORA_SANITIZE AND TREMORA_TSAN) OR (TREMORA_FUZZ AND TREMORA_TSAN))
  message(FATAL_ERROR "ThreadSanitizer cannot be combined with AddressSanitizer: use a build folder of its own")
endif()

if(TREMORA_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

if(TREMORA_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

if(TREMORA_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "TREMORA_FUZZ needs clang (-DCMAKE_CXX_COMPILER=clang++): libFuzzer is part of clang")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
