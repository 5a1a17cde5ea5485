# Strict warnings for the project's own targets only; third-party headers come
# in as system includes and stay quiet.
function(qel_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
  # GCC 12's optimiser reports -Wrestrict and -Wmaybe-uninitialized inside
  # libstdc++'s own string and optional code (GCC bugs 105329 and 105651):
  # still shown, but not fatal in optimised builds.
  target_compile_options(${target} PRIVATE
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<NOT:$<CONFIG:Debug>>>:-Wno-error=restrict -Wno-error=maybe-uninitialized>)
endfunction()
