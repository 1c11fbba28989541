// Where libraries for files lack trees stay in memory.
#include "pipeline/scene/blockfiles.h"

#include <stdexcept>

namespace pipeline {

BlockFiles::BlockFiles(std::vector<System> const& all, TreeOptions const& treeOptions)
    : blocks(all), options(treeOptions) {
    if (!treeOptions.keep.cache.empty() || treeOptions.keep.memory)
        throw std::invalid_argument(
            "memory and cache: this build of the module lacks " KELPA_PIPELINE_LACKS);
}

BlockFiles::~BlockFiles() = default;

// Asked of stores with files alone.

std::uint64_t BlockFiles::write(std::size_t, TreeGeometry&, BlockFacts const&) {
    return 0;
}
BlockFiles::Found BlockFiles::look(std::size_t) const {
    return {};
}
BlockFiles::Found BlockFiles::read(std::size_t, TreeGeometry&) const {
    return {};
}
std::string BlockFiles::nameOf(std::size_t) const {
    return "";
}

} // namespace pipeline
