# Warnings are errors for the project's own targets only; third-party headers are included as SYSTEM.
function(kova_strict_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
