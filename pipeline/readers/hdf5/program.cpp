// The program kelpa-read-hdf5: particles of HDF5 files, as columns and rows for the one who started
// it.
#include "pipeline/files/printable.h"
#include "pipeline/readers/hdf5/dialects.h"

#include <fmt/format.h>

#include <cstring>

namespace pipeline {

ColumnSource arraySource(std::string name, H5Array const& array) {
    std::uint64_t const parts = array.rank() > 1 ? array.shape()[1] : 1;
    auto const read = [array](std::uint64_t first, std::uint64_t count, ScalarType as, char* to) {
        std::vector<H5Range> ranges = {{first, count}};
        if (array.rank() > 1)
            ranges.push_back({0, array.shape()[1]});
        array.read(ranges, as, to);
    };
    return {std::move(name), endingsOf(parts), array.type(), scalarName(array.type()), read,
            array.names()};
}

std::string cellText(std::array<double, 3> const& origin,
                     std::array<std::array<double, 3>, 3> const& edges,
                     std::array<bool, 3> const& isPeriodic) {
    std::string text = fmt::format("{}", fmt::join(origin, " "));
    for (std::array<double, 3> const& edge : edges)
        text += fmt::format(" {}", fmt::join(edge, " "));
    for (bool const repeats : isPeriodic)
        text += repeats ? " 1" : " 0";
    return text;
}

namespace {

void readHdf5(ReaderInput const& input, ReaderSender const& sender) {
    H5Handle const file = openH5File(input.namedPath);
    for (H5Dialect const* const dialect : {&h5md, &openPmd, &gadget})
        if (dialect->isOf(file))
            return dialect->send(file, input, sender);
    std::string present;
    for (std::string const& name : membersOf(file))
        present += (present.empty() ? "" : ", ") + quoted(name);
    throw ReaderProblem(
        fmt::format("it is HDF5, laid out neither as H5MD nor openPMD nor as snapshots of Gadget, "
                    "GIZMO, AREPO, SWIFT or EAGLE; it holds {}",
                    present.empty() ? "nothing" : present));
}

} // namespace

} // namespace pipeline

int main(int argc, char** argv) {
    return pipeline::runReader(argc, argv, pipeline::readHdf5);
}
