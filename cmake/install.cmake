# What an installed copy offers: headers, the two libraries, the command, and what CMake and
# pkg-config need to find them. Nothing in it names the prefix, so the tree may be moved.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

# Until 1.0 a minor version may change records that hosts were compiled against.
set_target_properties(kelpa_particles kelpa_host PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})

# Plugins that were linked to different versions may meet in one program; each finds its own.
if(BUILD_SHARED_LIBS AND UNIX AND NOT APPLE)
    set(symbols ${PROJECT_BINARY_DIR}/symbols.map)
    file(WRITE ${symbols} "KELPA_${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR} { *; };\n")
    foreach(library IN ITEMS kelpa_particles kelpa_host)
        target_link_options(${library} PRIVATE LINKER:--version-script=${symbols})
    endforeach()
endif()

install(TARGETS kelpa_particles kelpa_host EXPORT KelpaTargets
    LIBRARY COMPONENT library NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development
    FILE_SET HEADERS COMPONENT development)
if(TARGET kelpa_tool)
    install(TARGETS kelpa_tool COMPONENT tool)
endif()
if(TARGET kelpa_mpi)
    install(TARGETS kelpa_mpi COMPONENT mpi)
endif()
if(BUILD_SHARED_LIBS)
    file(RELATIVE_PATH bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
    set_target_properties(kelpa_host PROPERTIES INSTALL_RPATH "$ORIGIN")
    if(TARGET kelpa_tool)
        set_target_properties(kelpa_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
    endif()
    if(TARGET kelpa_mpi)
        set_target_properties(kelpa_mpi PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
    endif()
endif()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Kelpa)
install(EXPORT KelpaTargets NAMESPACE Kelpa:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/KelpaConfig.cmake.in KelpaConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(KelpaConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KelpaConfig.cmake ${PROJECT_BINARY_DIR}/KelpaConfigVersion.cmake
    DESTINATION ${package_dir} COMPONENT development)

# kelpa.pc with our host layer, kelpa-particles.pc for hosts that supply the services themselves.
# An archive comes after those that call into it, and the library calls the services.
file(RELATIVE_PATH pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
foreach(pc_name IN ITEMS kelpa kelpa-particles)
    set(pc_libs "-lkelpa_particles")
    set(pc_services "; the program supplies the six services of platform.h")
    if(pc_name STREQUAL kelpa)
        string(APPEND pc_libs " -lkelpa_host")
        set(pc_services "")
    endif()
    configure_file(${CMAKE_CURRENT_LIST_DIR}/kelpa.pc.in ${pc_name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${pc_name}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
