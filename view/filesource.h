// Particles of files, frame by frame.
#pragma once

#include "view/source.h"
#include "view/wanted.h"

#include <optional>

namespace pipeline::view {

/// Reads what is viewed from a file or a sequence, as the command's other pictures do.
class FileSource final : public Source {
  public:
    /// Throws `InputError` when no file is part of a sequence.
    explicit FileSource(WantedScene what);

    std::shared_ptr<Shown> load(SceneChoice const& choice, Report const& report) override;
    Recoloring recolored(Shown const& shown, SceneChoice const& choice,
                         Report const& report) override;
    Row rowOf(Shown const& shown, std::size_t place, Report const& report) override;
    std::vector<int> frames(Report const& report) override;

  private:
    /// The particles of a frame that the command's words leave, before the page's cut.
    struct Frame {
        SceneChoice choice;
        ParticleSet first;
        std::optional<ParticleSet> second;
        std::vector<std::string> notes;
    };

    ParticleSet read(SceneChoice const& choice, Report const& report, bool isWhole);
    Frame readFrame(SceneChoice const& choice, Report const& report);
    Frame frameOf(SceneChoice const& choice, Report const& report);
    void select(ParticleSet& first, ParticleSet* second, Note const& note, Report const& report);
    ParticleSet readAgain(Shown const& shown, SceneChoice choice, Report const& report,
                          bool isWhole);
    std::optional<ParticleSet> readSecond(ParticleSet const& first, Report const& report,
                                          std::vector<std::string>& notes);
    SceneOptions optionsFor(SceneChoice const& choice) const;
    std::string textOf(Remark const& remark) const;

    WantedScene wanted;
    FrameSource source;
    std::optional<int> firstFrame;
    Kept kept; ///< what other frames have of the first; where the command's planes lie
    std::vector<std::string> columns; ///< of the first frame
    std::optional<Frame> uncut; ///< kept while it is cut, so that a plane moves without reading
    ParticleSet whole; ///< every column of the frame that was asked about last, without places
    std::optional<Cut> wholeCut; ///< that it was asked about with
};

} // namespace pipeline::view
