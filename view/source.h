// Where the particles that are viewed come from.
#pragma once

#include "pipeline/files/progress.h"

#include "view/shown.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace pipeline::view {

/// How work for the page reports: what it does, and how much is done, below 0 where nobody can
/// tell. Throws `Interrupted` when the work is no longer wanted.
using Report = std::function<void(char const* what, double fraction)>;

/// Gives scenes frame by frame. Asked by one thread at a time; all but `frames` throw `InputError`
/// and what `report` throws.
class Source {
  public:
    Source() = default;
    Source(Source const&) = delete;
    Source& operator=(Source const&) = delete;
    virtual ~Source() = default;

    /// Reads and builds what is chosen. The first frame decides what others keep of it.
    virtual std::shared_ptr<Shown> load(SceneChoice const& choice, Report const& report) = 0;
    /// Other colours for the same particles.
    virtual Recoloring recolored(Shown const& shown, SceneChoice const& choice,
                                 Report const& report) = 0;
    /// A particle's row of the file, all of it.
    virtual Row rowOf(Shown const& shown, std::size_t particle, Report const& report) = 0;
    /// The numbers of all frames. Until it has been asked there is one.
    virtual std::vector<int> frames(Report const& report) = 0;
};

} // namespace pipeline::view
