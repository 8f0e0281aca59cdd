# A second build of the same tree with AddressSanitizer and UndefinedBehaviorSanitizer;
# scripts/test configures it in its own build folder and runs the same tests there.
option(TREMORA_SANITIZE "Build with -fsanitize=address,undefined" OFF)

if(TREMORA_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
