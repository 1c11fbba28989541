// How far a run of several pictures has come.
#pragma once

#include "tool/report/phases.h"

#include <cstdint>
#include <string>

namespace pipeline::tool {

/// How far a run of several pictures has come, and how long the others will take.
class FilmProgress {
  public:
    /// Begins `total` pictures; `unit` is what one of them is called.
    void begin(std::uint64_t total, std::string const& unit);
    void finishPicture();
    /// One of them need not be made.
    void skipPicture() { total -= total > 0 ? 1 : 0; }

    /// What the display of a picture's phase adds: "frame 3 of 240, 12 min left". Empty for a
    /// single picture. Safe while no picture begins or ends.
    std::string text() const;
    /// The same behind the line that tells about a finished picture.
    std::string remark() const;

  private:
    std::string timeLeft() const;

    std::uint64_t total = 0;
    std::uint64_t finished = 0;
    std::string unit;
    Stopwatch time;
    double secondsOfFinished = 0.0;
};

} // namespace pipeline::tool
