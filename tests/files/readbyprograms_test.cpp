// HDF5 of each convention and AMBER NetCDF, read from small files that h5py and netCDF4 wrote.

#include "pipeline/files/framesource.h"

#include "tests/support/particlefolder.h"

#include <cmath>
#include <functional>
#include <iterator>
#include <tuple>

using namespace pipeline;
using namespace kelpatest;

namespace {

std::string sample(std::string const& name) {
    return KELPA_SOURCE_DIR "/tests/files/samples/" + name;
}

std::string bytesOf(std::string const& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// Whether particles stand and move as samples/make.py puts the ones of these numbers.
testing::AssertionResult areLikeMade(ParticleSet const& set, std::vector<int> const& numbers) {
    if (set.positions.size() != numbers.size())
        return testing::AssertionFailure() << set.positions.size() << " particles";
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        auto const n = static_cast<float>(numbers[i]);
        if (!same(set.positions[i], {n, n + 0.25F, n + 0.5F}))
            return testing::AssertionFailure() << "particle " << i << " at " << set.positions[i].x;
        if (!set.velocities.empty() && !same(set.velocities[i], {1, 2, n}))
            return testing::AssertionFailure() << "particle " << i << " moves differently";
    }
    return testing::AssertionSuccess();
}

/// Whatever is cut off a file, it is refused in one line.
void expectCutsRefused(std::string const& name,
                       std::function<std::string(std::string)> const& complain) {
    std::string const good = bytesOf(sample(name));
    for (std::size_t cut = 8; cut < good.size(); cut += 1 + good.size() / 23) {
        std::string const text = complain(good.substr(0, cut));
        EXPECT_TRUE(text.starts_with("a: ") && text.find('\n') == std::string::npos)
            << name << " cut at " << cut << ": " << text;
    }
}

} // namespace

#ifdef KELPA_READS_HDF5

class Hdf5 : public ParticleFiles {
  protected:
    void expectCuts(std::string const& name) {
        expectCutsRefused(name, [this](std::string bytes) { return complaintAbout(bytes); });
    }
};

TEST_F(Hdf5, HoldsSnapshotsOfCosmology) {
    ParticleSet const all = readParticleFile(sample("gadget.hdf5"), {.summarise = true});
    EXPECT_TRUE(areLikeMade(all, {0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(all.format, "HDF5 (Gadget and kin)");
    EXPECT_EQ(all.time, 0.25);
    EXPECT_EQ(all.ids, (std::vector<std::int64_t>{100, 101, 102, 103, 104, 105}));
    EXPECT_EQ(all.types, (std::vector<std::int64_t>{0, 0, 0, 1, 1, 4}));
    EXPECT_EQ(all.typeNames->all()[4], "stars");
    EXPECT_EQ(all.cell.value().edges[1], (std::array<double, 3>{0, 10, 0}));
    EXPECT_TRUE(all.radii.empty());

    // Kinds by any of their names; what they lack is no number; the header may tell of mass.
    ReadOptions options{.kinds = {"dark_matter", "PartType0"},
                        .radiusFrom = "SmoothingLength",
                        .attributes = {"Masses"}};
    ParticleSet const some = readParticleFile(sample("gadget.hdf5"), options);
    EXPECT_TRUE(areLikeMade(some, {3, 4, 0, 1, 2}));
    EXPECT_TRUE(std::isnan(some.radii[0]) && some.radii[2] == 0.125F);
    EXPECT_EQ(some.attributes[0].values, (std::vector<float>{0.5F, 0.5F, 0.75F, 0.75F, 0.75F}));
    EXPECT_TRUE(readParticleFile(sample("gadget.hdf5"), {.kinds = {"gas"}}).types.empty());

    ParticleSet const swift = readParticleFile(sample("swift.hdf5"), {.allAttributes = true});
    EXPECT_EQ(swift.format, "HDF5 (SWIFT)");
    EXPECT_EQ(swift.cell.value().edges[2], (std::array<double, 3>{0, 0, 30}));
    EXPECT_TRUE(areLikeMade(swift, {0, 1, 2}));
}

TEST_F(Hdf5, JoinsTheFilesOfASnapshot) {
    for (char const* const part : {"eagle.0.hdf5", "eagle.1.hdf5"})
        EXPECT_TRUE(areLikeMade(readParticleFile(sample(part), {}), {0, 1, 2, 3, 4, 5}));
    fs::copy_file(sample("eagle.0.hdf5"), folder / "a.0.hdf5");
    EXPECT_TRUE(holdsAll(complaint((folder / "a.0.hdf5").string()),
                         {"one of several files, and 'a.1.hdf5' is not there"}));
    fs::copy_file(sample("eagle.0.hdf5"), folder / "a.1.hdf5"); // the same once more
    EXPECT_EQ(complaint((folder / "a.0.hdf5").string()), "no complaint");
    fs::copy_file(sample("gadget.hdf5"), folder / "a.1.hdf5", fs::copy_options::overwrite_existing);
    EXPECT_TRUE(holdsAll(complaint((folder / "a.0.hdf5").string(), {.kinds = {"gas"}}),
                         {"hold 5 particles of kind gas, and the header tells of 4"}));
}

TEST_F(Hdf5, HoldsFramesAsH5md) {
    for (auto const& [frame, first] : {std::pair{0, 0}, {1, 10}, {-1, 20}}) {
        ParticleSet set = readParticleFile(sample("species.h5"), {.frame = frame});
        EXPECT_EQ(set.velocities.size(), first == 10 ? 4U : 0U);
        set.velocities.clear();
        EXPECT_TRUE(areLikeMade(set, {first, first + 1, first + 2, first + 3}));
        EXPECT_EQ(set.step, 5 + first);
        EXPECT_EQ(set.time, first / 20.0);
        EXPECT_EQ(set.frameCount, 3);
        EXPECT_EQ(set.elements, (std::vector<std::uint8_t>{8, 1, 1, 8}));
        EXPECT_EQ(set.angstrom, 0.1F);
        EXPECT_EQ(set.cell.value().isPeriodic, (std::array<bool, 3>{true, false, true}));
        EXPECT_TRUE(holdsAll(set.notes.at(0).text, {"'atoms', 'few', 'atoms' is read"}));
    }
    ParticleSet const flat = readParticleFile(sample("species.h5"), {.kinds = {"few"}});
    EXPECT_TRUE(flat.positions.size() == 1 && same(flat.positions[0], {7, 7.25F, 0}));
    EXPECT_TRUE(holdsAll(complaint(sample("species.h5"), {.frame = 3}), {"no frame 3; it has 3"}));
    FrameSource source(sample("species.h5"));
    EXPECT_EQ(source.framesIn({{0, -1, 1}}, {}).count(), 3U);
}

TEST_F(Hdf5, HoldsIterationsAsOpenPmd) {
    ParticleSet const set =
        readParticleFile(sample("openpmd.h5"), {.frame = 1, .attributes = {"charge"}});
    EXPECT_TRUE(areLikeMade(set, {0, 1, 2}));
    EXPECT_EQ(set.step, 30);
    EXPECT_EQ(set.time, 15.0);
    EXPECT_EQ(set.types, (std::vector<std::int64_t>{0, 0, 1}));
    EXPECT_EQ(set.typeNames->all(), (std::vector<std::string>{"electrons", "ions"}));
    EXPECT_TRUE(std::isnan(set.attributes[0].values[0]) && set.attributes[0].values[2] == 1.5F);
    EXPECT_TRUE(areLikeMade(readParticleFile(sample("openpmd.h5"), {.kinds = {"ions"}}), {2}));
}

TEST_F(Hdf5, IsRefusedInOneLineWhereItCannotBeUsed) {
    EXPECT_TRUE(holdsAll(complaint(sample("gadget.hdf5"), {.kinds = {"gas", "bh"}}),
                         {"no particles of kind 'bh'; it has gas, dm, stars"}));
    EXPECT_TRUE(holdsAll(complaint(sample("openpmd.h5"), {.kinds = {"gas"}}),
                         {"no species 'gas'; it has electrons, ions"}));
    EXPECT_TRUE(holdsAll(complaint(sample("gadget.hdf5"), {.attributes = {"Density"}}),
                         {"no array 'Density'; it has", "Coordinates.x", "SmoothingLength"}));
    EXPECT_TRUE(holdsAll(complaintAbout("1\n\nH 0 0 0\n", {.kinds = {"gas"}}),
                         {"XYZ does not keep kinds of particles apart; HDF5 does"}));
    for (char const* const name : {"gadget.hdf5", "species.h5", "openpmd.h5"})
        expectCuts(name);
    // Counts that disagree: the header of one file before the arrays of another.
    std::string odd = bytesOf(sample("gadget.hdf5"));
    std::string const counts("\3\0\0\0\2\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0", 20);
    odd[odd.find(counts)] = 4;
    EXPECT_TRUE(holdsAll(complaintAbout(odd),
                         {"PartType0/Coordinates has 3 rows, and the header tells of 4"}));
}

#endif
#ifdef KELPA_READS_NETCDF

class Netcdf : public ParticleFiles {};

TEST_F(Netcdf, HoldsTrajectoriesAndRestartsOfAmber) {
    for (auto const& [name, frame, first] :
         {std::tuple{"amber.nc", 0, 0}, {"amber.nc", -1, 10}, {"restart.ncrst", 0, 0}}) {
        ParticleSet set = readParticleFile(sample(name), {.frame = frame});
        for (std::size_t i = 0; i < set.velocities.size(); ++i)
            EXPECT_TRUE(same(set.velocities[i], {1, 2, static_cast<float>(i)}));
        EXPECT_EQ(set.velocities.size(), 3U);
        set.velocities.clear();
        EXPECT_TRUE(areLikeMade(set, {first, first + 1, first + 2}));
        EXPECT_EQ(set.time, 12.5 + first / 10);
        EXPECT_EQ(set.cell.value().edges[1], (std::array<double, 3>{0, 21, 0}));
    }
    EXPECT_EQ(readParticleFile(sample("amber.nc"), {}).frameCount, 2);
    EXPECT_TRUE(holdsAll(complaint(sample("amber.nc"), {.frame = 2}), {"no frame 2; it has 2"}));
    for (char const* const name : {"amber.nc", "restart.ncrst"})
        expectCutsRefused(
            name, [this](std::string bytes) { return complaintAbout(bytes, {.frame = -1}); });
}

#endif
