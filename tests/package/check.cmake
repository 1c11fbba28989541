# Installs the library into a scratch prefix, moves that elsewhere, and builds the README's example
# against it as hosts outside this repository would: through find_package and through pkg-config.
#   cmake -DSOURCE=<repository> -DBUILD=<its build folder> -DSCRATCH=<folder> -DCXX=<compiler>
#         -DFLAGS=<compiler flags> -P check.cmake
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed (${result}): ${ARGN}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${SCRATCH})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${SCRATCH}/first)
file(RENAME ${SCRATCH}/first ${SCRATCH}/prefix)

# No path of the build or of the first prefix in what others read.
file(GLOB_RECURSE texts ${SCRATCH}/prefix/*.cmake ${SCRATCH}/prefix/*.pc ${SCRATCH}/prefix/*.h)
foreach(text IN LISTS texts)
    file(STRINGS ${text} paths REGEX "${SCRATCH}|${BUILD}")
    if(paths)
        message(FATAL_ERROR "${text} is not relocatable: ${paths}")
    endif()
endforeach()

file(READ ${SOURCE}/README.md readme)
string(REGEX MATCH "```cpp\n([^`]*)```" found "${readme}")
if(NOT found)
    message(FATAL_ERROR "README.md has no C++ example")
endif()
file(WRITE ${SCRATCH}/consumer/main.cpp "${CMAKE_MATCH_1}")
file(WRITE ${SCRATCH}/consumer/CMakeLists.txt "
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
find_package(Kelpa 0.1 REQUIRED COMPONENTS particles host)
add_executable(consumer main.cpp)
target_link_libraries(consumer Kelpa::particles Kelpa::host)
")
run(${CMAKE_COMMAND} -S ${SCRATCH}/consumer -B ${SCRATCH}/consumer/build
    -DCMAKE_PREFIX_PATH=${SCRATCH}/prefix -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_FLAGS=${FLAGS})
run(${CMAKE_COMMAND} --build ${SCRATCH}/consumer/build)

# Older compilers are told in a line.
file(WRITE ${SCRATCH}/consumer/older.cpp "#include <kelpa/particleprimitives/particleprimitives.h>\n")
execute_process(COMMAND ${CXX} -std=c++17 -I${SCRATCH}/prefix/include -fsyntax-only
    ${SCRATCH}/consumer/older.cpp ERROR_VARIABLE told RESULT_VARIABLE result)
string(REGEX MATCHALL "error:" errors "${told}")
list(LENGTH errors count)
if(result EQUAL 0 OR count GREATER 2 OR NOT told MATCHES "Kelpa needs C\\+\\+20")
    message(FATAL_ERROR "a compiler for C++17 is told: ${told}")
endif()

file(GLOB_RECURSE pc ${SCRATCH}/prefix/kelpa.pc)
get_filename_component(pc_dir ${pc} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(${PKG_CONFIG} --cflags --libs "kelpa >= 0.1")
separate_arguments(pc_flags UNIX_COMMAND "${output}")
separate_arguments(cxx_flags UNIX_COMMAND "${FLAGS}")
get_filename_component(lib_dir ${pc_dir} DIRECTORY)
run(${CXX} ${cxx_flags} -std=c++20 ${SCRATCH}/consumer/main.cpp ${pc_flags} -Wl,-rpath,${lib_dir}
    -o ${SCRATCH}/consumer/build/by_pkg_config)

foreach(program IN ITEMS consumer by_pkg_config)
    run(${SCRATCH}/consumer/build/${program})
    if(NOT output MATCHES "hit particle 1 at 4")
        message(FATAL_ERROR "the README's example (${program}) printed: ${output}")
    endif()
endforeach()
