// The files of the page, which are part of the program.
#pragma once

#include <span>
#include <string_view>

namespace pipeline::view {

struct PageFile {
    std::string_view name; ///< empty: the page itself
    std::string_view type; ///< as browsers call it
    std::string_view content;
};

std::span<PageFile const> pageFiles();

} // namespace pipeline::view
