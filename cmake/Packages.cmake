# cpack: Debian packages, one for each component of cmake --install. The preset `package` configures them,
# tests/packages tests them, and scripts/release.sh makes those of a release.

if(NOT PROJECT_IS_TOP_LEVEL OR NOT PLYCONVERT_BUILD_PROGRAM OR NOT CMAKE_SYSTEM_NAME STREQUAL "Linux")
    return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME plyconvert)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has one of its own
set(CPACK_PACKAGE_CONTACT "plyconvert maintainers <maintainers@plyconvert.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/FinishPackages.cmake)
# The permissions of installed files must not depend on the umask of the packing user.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

# The day of CHANGELOG.md's newest version; the first second of 1970 where it has none yet.
file(STRINGS CHANGELOG.md headings REGEX "^## ")
list(GET headings 0 heading)
if(heading MATCHES "\\(([0-9]+-[0-9]+-[0-9]+)\\)")
    set(changelog_day ${CMAKE_MATCH_1})
else()
    set(changelog_day 1970-01-01)
endif()
execute_process(COMMAND date -u -R -d ${changelog_day} OUTPUT_VARIABLE changelog_date OUTPUT_STRIP_TRAILING_WHITESPACE
    COMMAND_ERROR_IS_FATAL ANY)
set(generated ${PROJECT_BINARY_DIR}/packaging)
configure_file(packaging/changelog.in ${generated}/changelog.Debian @ONLY)
configure_file(packaging/shlibs.in ${generated}/shlibs @ONLY)

# add_package(COMPONENT NAME SECTION SUMMARY DESCRIPTION): what a component's package is called, says and documents.
function(add_package component name section summary description)
    string(TOUPPER ${component} key)
    set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
    set(documents ${CMAKE_INSTALL_DATADIR}/doc/${name})
    install(FILES packaging/copyright ${generated}/changelog.Debian DESTINATION ${documents}
        COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES CHANGELOG.md DESTINATION ${documents} RENAME changelog COMPONENT ${component} EXCLUDE_FROM_ALL)
    if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/${name}.lintian-overrides)
        install(FILES packaging/${name}.lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
            RENAME ${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
    endif()
endfunction()

set(CPACK_COMPONENTS_ALL "")
add_package(runtime libplyconvert1 libs "Gaussian-splat scenes to quantised datasets (library)"
"The one function of this library, plyConvert, turns a Gaussian-splat PLY file
into a self-contained, quantised dataset grouped by ground cell.")
add_package(development libplyconvert-dev libdevel "Gaussian-splat scenes to quantised datasets (development files)"
"The header, a CMake package and a pkg-config file of libplyconvert, with the
description of the dataset's format and what a host has to know.")
add_package(program plyconvert graphics "converter of Gaussian-splat scenes to quantised datasets"
"Converts PLY, SPZ and compressed PLY scenes of any size in bounded memory into
datasets grouped by ground cell. Inspects, verifies and exports datasets, and
shows them in the browser.")
add_package(geo plyconvert-geo graphics "pictures and catalogues of Gaussian-splat datasets"
"Two more subcommands of plyconvert. The first, picture, draws datasets from
straight above as GeoTIFF or PNG. The second, catalogue, lists the tiles of a
city as a STAC ItemCollection.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/symbols ${PROJECT_SOURCE_DIR}/packaging/triggers ${generated}/shlibs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libplyconvert1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_GEO_PACKAGE_DEPENDS "plyconvert (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SUGGESTS "plyconvert-geo")
install(FILES docs/hosting.md docs/format.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libplyconvert-dev
    COMPONENT development EXCLUDE_FROM_ALL)
# For users of the program, laid out as in the sources, since they link to each other.
set(documents batch catalogue format input performance program robustness viewing windows)
list(TRANSFORM documents REPLACE "(.+)" "docs/\\1.md")
install(FILES ${documents} docs/town.jpg docs/viewing.jpg DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/plyconvert/docs
    COMPONENT program EXCLUDE_FROM_ALL)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/plyconvert COMPONENT program EXCLUDE_FROM_ALL
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
    PATTERN "*.sh" PERMISSIONS
        OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

include(CPack)
