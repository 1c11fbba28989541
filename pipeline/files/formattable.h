// The formats that can be told apart, and how.
#pragma once

#include "pipeline/files/inputfile.h"
#include "pipeline/files/particleset.h"
#include "pipeline/files/readoptions.h"

#include <memory>
#include <string>
#include <string_view>
#include <variant>

namespace pipeline {

class FrameFormat;

/// A format that can be told from others. To add one, write its reader and a line in `formats`, in
/// this header's source.
struct FileFormat {
    /// Reads the only frame that a file holds.
    using ReadOne = ParticleSet (*)(InputFile& file, ReadOptions const& options);
    /// Makes the reader of one file that holds frame after frame.
    using MakeFrames = std::unique_ptr<FrameFormat> (*)(ReadOptions const& options);

    std::string_view name;     ///< for `--format`; empty when it cannot be read
    std::string_view title;    ///< for messages
    std::string_view suffixes; ///< tie-break when the content does not tell, between blanks
    bool (*recognise)(std::string_view head);                 ///< sees the first KiB
    std::variant<std::monostate, ReadOne, MakeFrames> reader; ///< the first: it is not read
    std::string_view wayOn{};   ///< what to do with a file that is not read
    bool hasAssemblies = false; ///< whether `ReadOptions::assembly` makes sense
    bool hasKinds = false;      ///< whether `ReadOptions::kinds` does

    bool isRead() const { return reader.index() != 0; }
    bool hasSuffixOf(std::string_view path) const;
};

/// What `--format` asks for, else what the content says, else the suffix (".gz" aside).
FileFormat const& findFormat(InputFile& file, std::string const& wanted);

/// The formats that can be read, for the user: "PLY, XYZ and GRO".
std::string readableFormats();
/// The same by the names that `ReadOptions::format` knows: "ply|xyz|gro".
std::string formatNames();

} // namespace pipeline
