# Warnings are errors on everything we compile ourselves.
function(auth_engine_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
endfunction()
