# Compile settings shared by the project's own targets.

# Warnings (and -Werror with VORN_WERROR) for a target of this project only;
# -Wnon-virtual-dtor stays off: COM interfaces have no destructor by design.
# third-party code is never built with them.
function(vorn_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
                                           -Wno-missing-field-initializers)
  # clang only (the fuzz build): VARIANT's anonymous struct inside its union
  # keeps the Windows layout, and group interfaces declare properties named
  # like the base interface's (get_Name), as the published interfaces do.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -Wno-nested-anon-types -Wno-overloaded-virtual)
  endif()
  if(VORN_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
