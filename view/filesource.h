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
    ParticleSet read(SceneChoice const& choice, Report const& report, bool isWhole);
    ParticleSet readAgain(Shown const& shown, SceneChoice choice, Report const& report,
                          bool isWhole);
    std::optional<ParticleSet> readSecond(ParticleSet const& first, Report const& report,
                                          std::vector<std::string>& notes);
    SceneOptions optionsFor(SceneChoice const& choice) const;

    WantedScene wanted;
    FrameSource source;
    std::optional<int> firstFrame;
    std::optional<float> keptRadius; ///< that later frames have of the first
    ParticleSet whole; ///< every column of the frame that was asked about last, without places
};

} // namespace pipeline::view
