// Formats that programs of their own read: starting them and hearing what they say.
#pragma once

#include "pipeline/files/columnuses.h"

#include <chrono>
#include <string>
#include <string_view>

namespace pipeline {

/// A program that reads a format, and what to tell those who lack it.
struct ReaderProgram {
    std::string_view name;    ///< of its file, such as "kelpa-read-vdb"
    std::string_view library; ///< that does the work
    std::string_view wayOn;   ///< how to get the program
    /// How long it may say nothing, beside 4 s a MiB of the file: four times the processor time
    /// that it may take, for disks that are slow and machines that are busy.
    std::chrono::milliseconds patience = std::chrono::minutes(4);
};

/// Where the program is: beside the one that runs, where both were built, or where both are
/// installed. Empty: nowhere.
std::string findReaderProgram(std::string_view name);

/// Lets the program read the frame that `options` ask for and collects what it sends into
/// `particles`. Whatever happens to the program, the file is to blame: the error says so in one
/// line. Refuses files that are packed, and pipes.
void readByProgram(InputFile& file, ReaderProgram const& program, ColumnNames const& names,
                   ReadOptions const& options, ParticleSet& particles);

} // namespace pipeline
