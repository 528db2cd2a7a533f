# One set of warnings for all of the project's own targets.
add_library(tavrin_warnings INTERFACE)
target_compile_options(tavrin_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wnull-dereference
  -Wimplicit-fallthrough
  "$<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>"
  "$<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor;-Wold-style-cast;-Woverloaded-virtual>")
# Not in a user's build, whose compiler may know warnings that ours does not.
if(TAVRIN_WARNINGS_ARE_ERRORS)
  target_compile_options(tavrin_warnings INTERFACE -Werror)
endif()
# The sanitizers' instrumentation makes gcc see null dereferences that are not there.
if(TAVRIN_SANITIZE)
  target_compile_options(tavrin_warnings INTERFACE
    -Wno-null-dereference $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()
