# cmake --install: the library, its header, a CMake package and a pkg-config file. The components become packages
# (Packages.cmake): `runtime` for running a host, `development` for building one; `program` and `geo` are those of
# program/.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS plyconvert EXPORT plyconvertTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/plyconvert.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/plyconvert)
install(EXPORT plyconvertTargets NAMESPACE plyconvert:: DESTINATION ${package_folder} COMPONENT development)
configure_package_config_file(cmake/plyconvertConfig.cmake.in plyconvertConfig.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(plyconvertConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/plyconvertConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/plyconvertConfigVersion.cmake
    DESTINATION ${package_folder} COMPONENT development)

# The prefix is relative to the file, because cmake --install may use another prefix and an installed tree may be moved.
file(RELATIVE_PATH prefix_from_pc ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pc ${prefix_from_pc})
configure_file(cmake/plyconvert.pc.in plyconvert.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/plyconvert.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
