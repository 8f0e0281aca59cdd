# Warnings for our own code. Third-party headers come in through imported targets,
# which CMake marks as system headers, so these flags never fire on Qt, OpenCV or FFmpeg.
option(TREMORA_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)

add_library(tremora_warnings INTERFACE)
add_library(Tremora::warnings ALIAS tremora_warnings)

target_compile_options(tremora_warnings INTERFACE
  -Wall                  # the usual suspects
  -Wextra                # unused parameters, sign comparisons and more
  -Wpedantic             # no compiler extensions
  -Wnon-virtual-dtor     # a class with virtual functions needs a virtual destructor
  -Wcast-align           # casts that raise the alignment a pointer needs
  -Wunused               # anything declared and never used
  -Wformat=2             # printf-style format strings
  -Wimplicit-fallthrough # switch cases that run into the next one by accident
  $<$<BOOL:${TREMORA_WARNINGS_AS_ERRORS}>:-Werror>)
