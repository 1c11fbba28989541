// The conventions by which programs lay particles out in HDF5 files.
#pragma once

#include "pipeline/readers/hdf5/h5objects.h"
#include "pipeline/readers/particlegroups.h"
#include "pipeline/readers/readersender.h"

#include <array>
#include <string>

namespace pipeline {

/// A convention: how to know it, and how to send what is wanted.
struct H5Dialect {
    bool (*isOf)(hid_t file);
    void (*send)(hid_t file, ReaderInput const& input, ReaderSender const& sender);
};

/// H5MD: P. de Buyl, P. H. Colberg, F. Höfling, "H5MD: a structured, efficient, and portable file
/// format for molecular data", Computer Physics Communications 185 (2014).
extern H5Dialect const h5md;
/// The openPMD standard for particle and mesh data, 1.x, https://www.openpmd.org.
extern H5Dialect const openPmd;
/// Snapshots of cosmology as Gadget began them: groups PartType0 to PartType6 beside a Header.
extern H5Dialect const gadget;

/// A source of the columns that an array of particles has; of its further axes each entry is one.
ColumnSource arraySource(std::string name, H5Array const& array);

/// A fact of a cell as `ReaderSender::fact` tells it.
std::string cellText(std::array<double, 3> const& origin,
                     std::array<std::array<double, 3>, 3> const& edges,
                     std::array<bool, 3> const& isPeriodic);

} // namespace pipeline
