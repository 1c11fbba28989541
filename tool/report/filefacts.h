// What a file tells of its particles before any picture: frame, cell, kinds.
#pragma once

#include "pipeline/files/json.h"
#include "pipeline/files/particleset.h"

#include <string>
#include <vector>

namespace pipeline::tool {

/// The facts of a frame that was read, as lines for the user: which frame it is, its step and time,
/// the cell, particles by element and by type.
std::vector<std::string> factLines(ParticleSet const& particles);
/// The same for programs: "frame", "step", "time", "cell", "elements", "types", as far as they are
/// known.
void addFacts(JsonObject& json, ParticleSet const& particles);

/// A column as a line for the user: its name, its type, and the range of its numbers or the most
/// frequent of its names.
std::string columnLine(AttributeSummary const& column);
Json jsonOfColumn(AttributeSummary const& column);

} // namespace pipeline::tool
