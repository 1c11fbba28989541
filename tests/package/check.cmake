# Installs the library into a scratch prefix and builds the README's example against it, as a host
# outside this repository would.
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
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${SCRATCH}/prefix)

file(READ ${SOURCE}/README.md readme)
string(REGEX MATCH "```cpp\n([^`]*)```" found "${readme}")
if(NOT found)
    message(FATAL_ERROR "README.md has no C++ example")
endif()
file(WRITE ${SCRATCH}/consumer/main.cpp "${CMAKE_MATCH_1}")
file(WRITE ${SCRATCH}/consumer/CMakeLists.txt "
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
find_package(Kelpa REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer Kelpa::particles Kelpa::host)
")
run(${CMAKE_COMMAND} -S ${SCRATCH}/consumer -B ${SCRATCH}/consumer/build
    -DCMAKE_PREFIX_PATH=${SCRATCH}/prefix -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_FLAGS=${FLAGS})
run(${CMAKE_COMMAND} --build ${SCRATCH}/consumer/build)
run(${SCRATCH}/consumer/build/consumer)
if(NOT output MATCHES "hit particle 1 at 4")
    message(FATAL_ERROR "the README's example printed: ${output}")
endif()
