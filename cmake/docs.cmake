# The target `docs`: API documentation of what is installed, where Doxygen is found. Any warning,
# such as a public name without a docstring, fails it.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
    return()
endif()
get_target_property(particle_headers kelpa_particles HEADER_SET)
get_target_property(host_headers kelpa_host HEADER_SET)
set(KELPA_DOC_HEADERS "")
foreach(header IN LISTS particle_headers host_headers)
    string(APPEND KELPA_DOC_HEADERS " \"${header}\"")
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
add_custom_target(docs COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
    COMMENT "API documentation: ${PROJECT_BINARY_DIR}/docs/html/index.html" VERBATIM)
if(BUILD_TESTING)
    add_test(NAME Repository.DocumentsWhateverIsInstalled
        COMMAND ${DOXYGEN_EXECUTABLE} ${PROJECT_BINARY_DIR}/Doxyfile)
endif()
