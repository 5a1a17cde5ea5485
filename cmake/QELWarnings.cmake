# Strict warnings for the project's own targets only; third-party headers come
# in as system includes and stay quiet. Known compiler false positives are
# silenced where they arise (qel/GccWarnings.h), never here.
function(qel_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
endfunction()
