# Installation and the CMake package: find_package(vorndb CONFIG REQUIRED)
# gives vorndb::runtime (libvornrt.so and the headers under include/vorn/).
include(CMakePackageConfigHelpers)

# The type-library format is the runtime's and its generator's only.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vorn DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        PATTERN typelib_format.h EXCLUDE)
install(EXPORT vorndbTargets NAMESPACE vorndb:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vorndb)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vorndbConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/vorndbConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vorndb
                              PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vorndbConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vorndbConfig.cmake ${PROJECT_BINARY_DIR}/vorndbConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vorndb)
