# Writes files into a C++ source: cmake -DOUTPUT=pagefiles.cpp -DFOLDER=page -DFILES="a;b" -P embed.cmake
set(arrays "")
set(table "")
set(number 0)
foreach(file IN LISTS FILES)
    file(READ ${FOLDER}/${file} hex HEX)
    string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${hex}")
    string(REGEX REPLACE "((.......){16})" "\\1\n" bytes "${bytes}")
    string(APPEND arrays "constexpr char file${number}[] = {\n${bytes}'\\0'};\n")
    string(REGEX MATCH "[a-z]+$" suffix ${file})
    if(suffix STREQUAL html)
        set(type "text/html; charset=utf-8")
    elseif(suffix STREQUAL css)
        set(type "text/css; charset=utf-8")
    else()
        set(type "text/javascript; charset=utf-8")
    endif()
    set(name ${file})
    if(file STREQUAL index.html)
        set(name "")
    endif()
    string(APPEND table "    {\"${name}\", \"${type}\", {file${number}, sizeof file${number} - 1}},\n")
    math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "// Made from view/page.
#include \"view/pagefiles.h\"

namespace pipeline::view {

namespace {

${arrays}
constexpr PageFile files[] = {
${table}};

} // namespace

std::span<PageFile const> pageFiles() {
    return files;
}

} // namespace pipeline::view
")
