# Parts of an installation besides the targets: files for pkg-config and CMake, and documents.
include(CMakePackageConfigHelpers)
set(trelm_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/trelm)
set(trelm_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(EXPORT trelm NAMESPACE trelm:: FILE trelm-targets.cmake DESTINATION ${trelm_cmake_dir})
configure_package_config_file(cmake/trelm-config.cmake.in trelm-config.cmake INSTALL_DESTINATION ${trelm_cmake_dir})
write_basic_package_version_file(trelm-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/trelm-config.cmake ${PROJECT_BINARY_DIR}/trelm-config-version.cmake
    DESTINATION ${trelm_cmake_dir})

# Relative, so that a prefix that was moved still works.
file(RELATIVE_PATH prefix_from_pkgconfig /prefix/${trelm_pkgconfig_dir} /prefix)
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig "${prefix_from_pkgconfig}")
configure_file(cmake/trelm.pc.in trelm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/trelm.pc DESTINATION ${trelm_pkgconfig_dir})

file(GLOB documents CONFIGURE_DEPENDS docs/*.md)
install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${documents} DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
install(DIRECTORY contrib DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/pictures DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
