# One set of warnings for all of the project's own targets; every warning is an error.
add_library(tavrin_warnings INTERFACE)
target_compile_options(tavrin_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wnon-virtual-dtor
  -Wold-style-cast -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough -Werror)
# The sanitizers' instrumentation makes gcc see null dereferences that are not there.
if(TAVRIN_SANITIZE)
  target_compile_options(tavrin_warnings INTERFACE -Wno-null-dereference -Wno-maybe-uninitialized)
endif()
