# Compiler settings of every target of the project, carried by one interface target.
#
# -ffp-contract=off: no compiler fuses a multiply and an add, so that every build gives the same bytes.
# No -march and no -ffast-math anywhere, for the same reason.

add_library(plyconvert_settings INTERFACE)
target_compile_features(plyconvert_settings INTERFACE cxx_std_20)

# The system's header without its macros min and max, and without what is seldom used.
target_compile_definitions(plyconvert_settings INTERFACE $<$<PLATFORM_ID:Windows>:NOMINMAX;WIN32_LEAN_AND_MEAN>)

if(MSVC) # no /WX: its warnings have not been seen
    target_compile_options(plyconvert_settings INTERFACE /W4 /permissive- /utf-8 /fp:precise /Zc:__cplusplus)
else()
    target_compile_options(plyconvert_settings INTERFACE
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Werror -ffp-contract=off)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
        # g++ 12 warns of an overlap inside "literal" + std::string at -O3 where there is none; 13 no longer does.
        target_compile_options(plyconvert_settings INTERFACE -Wno-restrict)
    endif()
endif()

set(PLYCONVERT_SANITIZE "" CACHE STRING "Sanitizers for every target, as -fsanitize takes them (address,undefined or thread)")
if(PLYCONVERT_SANITIZE)
    # Linked into everything, tests' dependencies included: a sanitizer's runtime must be the whole process's.
    add_compile_options(-fsanitize=${PLYCONVERT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
    add_link_options(-fsanitize=${PLYCONVERT_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # g++ 12: false alarms inside the standard library, of streams' virtual bases and of std::function members.
        add_compile_options(-Wno-maybe-uninitialized)
        if(PLYCONVERT_SANITIZE MATCHES undefined)
            add_compile_options(-fno-sanitize=vptr)
        endif()
    endif()
endif()

if(PROJECT_IS_TOP_LEVEL)
    set(CMAKE_C_VISIBILITY_PRESET hidden)
    set(CMAKE_CXX_VISIBILITY_PRESET hidden)
    set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
    set(CMAKE_CXX_EXTENSIONS OFF)
    set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
endif()
