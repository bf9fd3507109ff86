# The compiler settings of all targets, in one interface target.
#
# -ffp-contract=off keeps compilers from fusing a multiply and an add, so that every build gives the same bytes. For the
# same reason there is no -march and no -ffast-math.

add_library(plyconvert_settings INTERFACE)
target_compile_features(plyconvert_settings INTERFACE cxx_std_20)

# windows.h without its macros min and max and without rarely used parts.
target_compile_definitions(plyconvert_settings INTERFACE $<$<PLATFORM_ID:Windows>:NOMINMAX;WIN32_LEAN_AND_MEAN>)

if(MSVC) # no /WX: its warnings have not been seen
    target_compile_options(plyconvert_settings INTERFACE /W4 /permissive- /utf-8 /fp:precise /Zc:__cplusplus)
else()
    target_compile_options(plyconvert_settings INTERFACE
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Werror -ffp-contract=off)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
        # At -O3 g++ 12 warns of an overlap in "literal" + std::string that does not exist; g++ 13 does not.
        target_compile_options(plyconvert_settings INTERFACE -Wno-restrict)
    endif()
endif()

set(PLYCONVERT_SANITIZE "" CACHE STRING "Sanitizers for every target, as -fsanitize takes them (address,undefined or thread)")

# The hardening of Linux distributions: checks of buffers of known size, stack protection, indirect branch tracking on
# processors that have it, and read-only tables of the dynamic linker.
option(PLYCONVERT_HARDENING "Build with the hardening flags of Linux distributions" ON)
if(PLYCONVERT_HARDENING AND CMAKE_SYSTEM_NAME STREQUAL "Linux" AND NOT PLYCONVERT_SANITIZE)
    target_compile_options(plyconvert_settings INTERFACE -fstack-protector-strong -fstack-clash-protection
        $<$<IN_LIST:${CMAKE_SYSTEM_PROCESSOR},x86_64;AMD64>:-fcf-protection=full>)
    # These need an optimised build.
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

# The same bytes from any source folder.
if(NOT MSVC)
    foreach(kind macro debug)
        target_compile_options(plyconvert_settings INTERFACE -f${kind}-prefix-map=${PROJECT_SOURCE_DIR}=.)
    endforeach()
endif()

if(PLYCONVERT_SANITIZE)
    # For all targets, including dependencies of the tests, because the whole process must use the sanitizer's runtime.
    add_compile_options(-fsanitize=${PLYCONVERT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
    add_link_options(-fsanitize=${PLYCONVERT_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # False positives of g++ 12 inside the standard library, about virtual bases of streams and members of
        # std::function.
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
