# TAVRIN_SANITIZE: empty, "address;undefined" or "thread". Applied to every target of the project.
set(TAVRIN_SANITIZE "" CACHE STRING "Sanitizers to build with, a list for -fsanitize=")
if(TAVRIN_SANITIZE)
  string(REPLACE ";" "," sanitize_flags "${TAVRIN_SANITIZE}")
  add_compile_options(-fsanitize=${sanitize_flags} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${sanitize_flags})
  # A thread that is ended by unwinding has no exception object: every handler that lets it pass binds a
  # null reference, which this one check takes for a fault. Null accesses still end the program.
  add_compile_options(-fno-sanitize=null)
endif()
