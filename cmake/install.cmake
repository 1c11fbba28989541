# What an installed copy offers: headers, the two libraries and the command.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

install(TARGETS kelpa_particles kelpa_host EXPORT KelpaTargets FILE_SET HEADERS)
if(TARGET kelpa_tool)
    install(TARGETS kelpa_tool)
endif()
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Kelpa)
install(EXPORT KelpaTargets NAMESPACE Kelpa:: DESTINATION ${package_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/KelpaConfig.cmake.in KelpaConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(KelpaConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KelpaConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/KelpaConfigVersion.cmake DESTINATION ${package_dir})
