// A primitive's particles for a page in the browser.
#pragma once

#include "pipeline/files/particleset.h"

#include "python/native/tree.h"
#include "view/source.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelpapython {

/// What Python tells of a primitive's particles. Rows are those of all systems, one behind the
/// other.
struct Told {
    std::shared_ptr<void> alive; ///< what keeps the tree
    std::string title;
    char upAxis = 'z';
    Kelpa::Vector color; ///< of particles without colours; linear
    std::vector<std::string> columns;
    std::vector<std::int64_t> ids; ///< empty: the rows
    // These ask the interpreter, from any thread.
    std::function<pipeline::Attribute(std::string const&)> column; ///< its values, row by row
    std::function<pipeline::view::Row(std::int64_t)> row;
};

/// Shows a tree as it is, and builds others for some of its particles and for other radii.
class TreeSource final : public pipeline::view::Source {
  public:
    /// `facts.alive` keeps `shown`.
    TreeSource(Tree& shown, Told facts, int threadCount);

    std::shared_ptr<pipeline::view::Shown> load(pipeline::view::SceneChoice const& choice,
                                                pipeline::view::Report const& report) override;
    pipeline::view::Recoloring recolored(pipeline::view::Shown const& shown,
                                         pipeline::view::SceneChoice const& choice,
                                         pipeline::view::Report const& report) override;
    pipeline::view::Row rowOf(pipeline::view::Shown const& shown, std::size_t place,
                              pipeline::view::Report const& report) override;
    std::vector<int> frames(pipeline::view::Report const& report) override;

  private:
    std::int64_t idOf(std::int64_t row) const;

    Tree& tree;
    Told const told;
    int const threads;
};

} // namespace kelpapython
