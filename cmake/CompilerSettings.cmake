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

# What Linux distributions build with: checks of buffers whose size is known, stack protection, indirect branch tracking
# where the processor has it, and tables of the dynamic linker that are read-only once a program runs.
option(PLYCONVERT_HARDENING "Build with the hardening flags of Linux distributions" ON)
if(PLYCONVERT_HARDENING AND CMAKE_SYSTEM_NAME STREQUAL "Linux" AND NOT PLYCONVERT_SANITIZE)
    target_compile_options(plyconvert_settings INTERFACE -fstack-protector-strong -fstack-clash-protection
        $<$<IN_LIST:${CMAKE_SYSTEM_PROCESSOR},x86_64;AMD64>:-fcf-protection=full>)
    # Only an optimised build has these.
    foreach(option -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
        target_compile_options(plyconvert_settings INTERFACE $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:${option}>)
    endforeach()
    target_link_options(plyconvert_settings INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
    if(PROJECT_IS_TOP_LEVEL)
        include(CheckPIESupported)
        check_pie_supported(LANGUAGES C CXX)
        set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    endif()
endif()

# The same bytes wherever the sources lie.
if(NOT MSVC)
    foreach(kind macro debug)
        target_compile_options(plyconvert_settings INTERFACE -f${kind}-prefix-map=${PROJECT_SOURCE_DIR}=.)
    endforeach()
endif()

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
