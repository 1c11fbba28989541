// The formats that can be told apart, and how.
#pragma once

#include "pipeline/files/inputfile.h"
#include "pipeline/files/particleset.h"
#include "pipeline/files/readoptions.h"

#include <string>
#include <string_view>

namespace pipeline {

/// A format that can be told from others. To add one, write `read` and a line in `formats`, in this
/// header's source.
struct FileFormat {
    std::string_view name;     ///< for `--format`; empty when it cannot be read
    std::string_view title;    ///< for messages
    std::string_view suffixes; ///< tie-break when the content does not tell, between blanks
    bool (*recognise)(std::string_view head);                         ///< sees the first KiB
    ParticleSet (*read)(InputFile& file, ReadOptions const& options); ///< null: not read
    std::string_view wayOn{};   ///< what to do with a file that is not read
    bool hasAssemblies = false; ///< whether `ReadOptions::assembly` makes sense
    bool hasKinds = false;      ///< whether `ReadOptions::kinds` does

    bool hasSuffixOf(std::string_view path) const;
};

/// What `--format` asks for, else what the content says, else the suffix (".gz" aside).
FileFormat const& findFormat(InputFile& file, std::string const& wanted);

/// The formats that can be read, for the user: "PLY, XYZ and GRO".
std::string readableFormats();
/// The same by the names that `ReadOptions::format` knows: "ply|xyz|gro".
std::string formatNames();

} // namespace pipeline
