# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# Warnings on everything we compile ourselves; errors only with AUTH_ENGINE_WERROR=ON (scripts/test
# and CI), so that a consumer's newer compiler with new warnings still builds the library.
function(auth_engine_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
    if(AUTH_ENGINE_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()
