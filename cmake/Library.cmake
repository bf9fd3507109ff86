# The core (every unit, static, hidden) and the shared library around it, which exports one name.

find_package(Threads REQUIRED)

add_library(plyconvert_core STATIC
    convert.cpp
    src/records.cpp
    src/runlog.cpp
    src/platform.cpp
    src/large_pages.cpp
    src/kernels.cpp
    src/splatheader.cpp
    src/splatheader_lines.cpp
    src/splatheader_numbers.cpp
    src/blocks.cpp
    src/splatheader_scan.cpp
    src/cells.cpp
    src/chunker.cpp
    src/chunker_decode.cpp
    src/indexer.cpp
    src/indexer_quantise.cpp
    src/indexer_quantise_fast.cpp
    src/indexer_quantise_avx2.cpp
    src/indexer_memory.cpp
    src/indexer_build.cpp
    src/indexer_files.cpp
    src/indexer_meta.cpp)
set_target_properties(plyconvert_core PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON CXX_EXTENSIONS OFF)
target_include_directories(plyconvert_core PUBLIC
    ${CMAKE_CURRENT_SOURCE_DIR}/include PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(plyconvert_core PRIVATE PLYCONVERT_BUILDING)
if(NOT MSVC)
    # Neither option changes a value: square roots set no errno, and floating-point comparisons may become masks. Both
    # are needed to vectorise the hot loops.
    target_compile_options(plyconvert_core PRIVATE -fno-math-errno -fno-trapping-math)
endif()
target_link_libraries(plyconvert_core PRIVATE $<BUILD_INTERFACE:plyconvert_settings> PUBLIC Threads::Threads)

add_library(plyconvert SHARED $<TARGET_OBJECTS:plyconvert_core>)
add_library(plyconvert::plyconvert ALIAS plyconvert)
target_link_libraries(plyconvert PRIVATE Threads::Threads $<BUILD_INTERFACE:plyconvert_settings>)
target_include_directories(plyconvert INTERFACE
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>)
set_target_properties(plyconvert PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} LINKER_LANGUAGE CXX)
if(WIN32)
    target_sources(plyconvert PRIVATE src/plyconvert.def)
    set_target_properties(plyconvert PROPERTIES PREFIX "")
    if(MINGW)
        # Exports only the names of the .def file, even if the C++ library inside marks others for export.
        target_link_options(plyconvert PRIVATE -Wl,--exclude-all-symbols)
    endif()
else()
    # With hidden visibility alone, weak std:: symbols would remain in the dynamic table; the version script leaves one
    # name.
    target_link_options(plyconvert PRIVATE
        -Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/src/exports.map -Wl,--no-undefined)
    if(PLYCONVERT_SANITIZE)
        # clang leaves the sanitizer's runtime to the executable.
        set_property(TARGET plyconvert PROPERTY LINK_OPTIONS
            -Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/src/exports.map)
    endif()
    set_property(TARGET plyconvert APPEND PROPERTY LINK_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/exports.map)
endif()
