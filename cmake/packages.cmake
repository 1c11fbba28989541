# Debian packages from `cpack`: the shared libraries, what is needed to build against them, the
# command, the Python module, and programs that read one more format each. Configure with the preset
# `package`, which sets /usr and BUILD_SHARED_LIBS.
#
# The library is packaged shared, with the minor version in its name: records and inline bodies of
# public headers may change between minor versions until 1.0, and hosts that were compiled against
# the older ones then keep theirs. Built static, only the development files and the command come out.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelpa)
set(CPACK_PACKAGE_VENDOR "The Kelpa developers")
if(NOT CPACK_PACKAGE_CONTACT) # who hands packages on sets a real address
    set(CPACK_PACKAGE_CONTACT "The Kelpa developers <kelpa@localhost>")
endif()
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(abi ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(library_package libkelpa${abi})
set(development_package libkelpa-dev)
set(tool_package kelpa)
set(python_package python3-kelpa)
set(CPACK_COMPONENTS_ALL library development tool python)
if(NOT BUILD_SHARED_LIBS)
    list(REMOVE_ITEM CPACK_COMPONENTS_ALL library)
endif()
if(NOT TARGET kelpa_tool)
    list(REMOVE_ITEM CPACK_COMPONENTS_ALL tool)
endif()
if(NOT TARGET kelpa_python)
    list(REMOVE_ITEM CPACK_COMPONENTS_ALL python)
endif()

# Programs that read one format each may be left out by those who have no such files.
set(formats_packages kelpa-formats-vdb kelpa-formats-hdf5 kelpa-formats-netcdf)
foreach(format IN ITEMS vdb hdf5 netcdf)
    set(${format}_package kelpa-formats-${format})
    if(TARGET kelpa-read-${format})
        list(APPEND CPACK_COMPONENTS_ALL ${format})
    endif()
endforeach()
list(JOIN formats_packages ", " formats_packages)
if(TARGET kelpa_mpi)
    list(APPEND CPACK_COMPONENTS_ALL mpi)
endif()
set(mpi_package kelpa-mpi)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/kelpa/host)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=") # what others link to stays within a minor version
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The same sources give the same bits: every time in the packages is that of the last commit, or
# SOURCE_DATE_EPOCH. Read when cpack runs; without its summary a description begins with its own line.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(COMMAND git -C ${PROJECT_SOURCE_DIR} log -1 --format=%ct
        OUTPUT_VARIABLE commit_time OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE no_git)
    if(NOT no_git AND commit_time)
        set(ENV{SOURCE_DATE_EPOCH} ${commit_time})
    endif()
endif()
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/packages/cpack.cmake)
file(WRITE ${CPACK_PROJECT_CONFIG_FILE} "set(CPACK_PACKAGE_DESCRIPTION_SUMMARY \"\")
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH} AND NOT \"$ENV{SOURCE_DATE_EPOCH}\" STREQUAL \"\")
    set(ENV{SOURCE_DATE_EPOCH} \"$ENV{SOURCE_DATE_EPOCH}\")
endif()
")

set(what "Kelpa finds the closest hits of rays on millions of particles: exact
spheres or points, still or moving between two snapshots.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "ray tracing of particle systems - shared libraries
${what}
.
This package holds the libraries that programs are linked to.")

file(WRITE ${PROJECT_BINARY_DIR}/packages/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packages/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${development_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# dpkg-shlibdeps leaves out libraries of the same build, so these are written by hand.
if(BUILD_SHARED_LIBS)
    set(same_library "${library_package} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${same_library}, libc6-dev")
    set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${same_library}")
endif()
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "ray tracing of particle systems - development files
${what}
.
This package holds the headers and the files for find_package(Kelpa) and
pkg-config.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ${tool_package})
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION graphics)
set(CPACK_COMPONENT_TOOL_DESCRIPTION "ray tracing of particle systems - command
${what}
.
This package holds the command kelpa, which makes pictures straight from
particle files.")

set(CPACK_DEBIAN_TOOL_PACKAGE_SUGGESTS "${formats_packages}, ${mpi_package}, ffmpeg")
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS "fonts-dejavu-core")

set(CPACK_DEBIAN_MPI_PACKAGE_NAME ${mpi_package})
set(CPACK_DEBIAN_MPI_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_MPI_PACKAGE_DEPENDS openmpi-bin)
if(BUILD_SHARED_LIBS)
    string(PREPEND CPACK_DEBIAN_MPI_PACKAGE_DEPENDS "${same_library}, ")
endif()
set(CPACK_DEBIAN_MPI_PACKAGE_SUGGESTS "${formats_packages}")
set(CPACK_COMPONENT_MPI_DESCRIPTION "ray tracing of particle systems - command for clusters
${what}
.
This package holds the command kelpa-mpi, which makes the pictures of the
command kelpa by many processes, on one machine or on many.")

# kelpa_formats_package(FORMAT TITLE TEXT): the package of the program that reads a format.
macro(kelpa_formats_package format title text)
    string(TOUPPER ${format} component)
    set(CPACK_DEBIAN_${component}_PACKAGE_NAME kelpa-formats-${format})
    set(CPACK_DEBIAN_${component}_PACKAGE_SECTION graphics)
    set(CPACK_DEBIAN_${component}_PACKAGE_ENHANCES "${tool_package}, ${python_package}")
    set(CPACK_COMPONENT_${component}_DESCRIPTION "ray tracing of particle systems - ${title}
${what}
.
This package lets the command kelpa and its Python module read ${text}.")
endmacro()
kelpa_formats_package(vdb "OpenVDB points" "the points
of OpenVDB files")
kelpa_formats_package(hdf5 "particles of HDF5" "the
particles of HDF5 files: snapshots of Gadget, GIZMO, AREPO, SWIFT and EAGLE,
H5MD and openPMD")
kelpa_formats_package(netcdf "AMBER NetCDF" "trajectories
and restarts of AMBER")

if(TARGET kelpa_python)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME ${python_package})
    set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
    # The compiled part is for this minor version of Python alone.
    math(EXPR next_minor "${KELPA_PYTHON_MINOR} + 1")
    set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
        "python3 (>= 3.${KELPA_PYTHON_MINOR}), python3 (<< 3.${next_minor}), python3-numpy")
    if(BUILD_SHARED_LIBS)
        string(PREPEND CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${same_library}, ")
    endif()
    set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-ase, python3-mdanalysis, python3-pandas, ${formats_packages}")
    set(CPACK_COMPONENT_PYTHON_DESCRIPTION "ray tracing of particle systems - Python module
${what}
.
This package holds the module kelpa, which takes particles and rays as numpy
arrays and gives hits and pictures back as arrays.")
    # What Debian's own tools write into packages of Python modules: byte code comes and goes with them.
    set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
        ${PROJECT_BINARY_DIR}/packages/postinst ${PROJECT_BINARY_DIR}/packages/prerm)
    file(WRITE ${PROJECT_BINARY_DIR}/packages/postinst "#!/bin/sh
set -e
if command -v py3compile >/dev/null 2>&1; then
    py3compile -p ${python_package}
fi
")
    file(WRITE ${PROJECT_BINARY_DIR}/packages/prerm "#!/bin/sh
set -e
if command -v py3clean >/dev/null 2>&1; then
    py3clean -p ${python_package}
fi
")
endif()

# Debian wants a copyright and a changelog in every package.
set(copyright ${PROJECT_BINARY_DIR}/packages/copyright)
configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright.in ${copyright} @ONLY)
string(TIMESTAMP today "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(changelog ${PROJECT_BINARY_DIR}/packages/changelog)
file(WRITE ${changelog} "kelpa (${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium

  * See CHANGES.md.

 -- ${CPACK_PACKAGE_CONTACT}  ${today}
")
find_program(GZIP gzip)
if(GZIP)
    execute_process(COMMAND ${GZIP} -9nkf ${changelog})
endif()
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    set(doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/${${component}_package})
    install(FILES ${copyright} DESTINATION ${doc_dir} COMPONENT ${component})
    if(GZIP)
        install(FILES ${changelog}.gz DESTINATION ${doc_dir} COMPONENT ${component}
            RENAME changelog.Debian.gz)
    endif()
endforeach()

# Two libraries that are made and versioned together stand in one package, and cpack writes the
# ldconfig calls itself.
if(BUILD_SHARED_LIBS)
    set(overrides ${PROJECT_BINARY_DIR}/packages/overrides)
    file(WRITE ${overrides} "${library_package}: package-name-doesnt-match-sonames
${library_package}: maintscript-calls-ldconfig
")
    install(FILES ${overrides} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
        COMPONENT library RENAME ${library_package})
endif()
include(CPack)
