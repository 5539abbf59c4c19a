# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# AUTH_ENGINE_SANITIZE=address gives AddressSanitizer with UndefinedBehaviorSanitizer; =thread gives
# ThreadSanitizer. Applied to every target of the build, so the library and its tests agree.
if(AUTH_ENGINE_SANITIZE STREQUAL "address")
    set(_flags -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(AUTH_ENGINE_SANITIZE STREQUAL "thread")
    set(_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT AUTH_ENGINE_SANITIZE STREQUAL "")
    message(FATAL_ERROR "AUTH_ENGINE_SANITIZE must be empty, address or thread (got '${AUTH_ENGINE_SANITIZE}')")
endif()
if(_flags)
    # GCC's flow analysis sees through the sanitizer instrumentation badly and reports
    # maybe-uninitialized inside libstdc++ (std::regex, std::function) where nothing is read
    # uninitialised; the plain builds keep the warning as an error.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        add_compile_options(-Wno-maybe-uninitialized)
    endif()
    add_compile_options(${_flags})
    add_link_options(${_flags})
endif()
