// Formats that programs of their own read: starting them and hearing what they say.
#pragma once

#include "pipeline/files/columnuses.h"

#include <string>
#include <string_view>

namespace kelpatool {

/// A program that reads a format, and what to tell those who lack it.
struct ReaderProgram {
    std::string_view name;    ///< of its file, such as "kelpa-read-vdb"
    std::string_view library; ///< that does the work
    std::string_view wayOn;   ///< how to get the program
};

/// Where the program is: beside the one that runs, where both were built, or where both are
/// installed. Empty: nowhere.
std::string findReaderProgram(std::string_view name);

/// Lets the program read a file and collects what it sends into `particles`. Whatever happens to
/// the program, the file is to blame: the error says so in one line.
void readByProgram(InputFile& file, ReaderProgram const& program, ColumnNames const& names,
                   ReadOptions const& options, ParticleSet& particles);

} // namespace kelpatool
