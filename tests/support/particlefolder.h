// What tests of particle files share.
#pragma once

#include "pipeline/files/errors.h"
#include "pipeline/files/particlefile.h"

#include "tool/options/hints.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace kelpatest {

namespace fs = std::filesystem;
using pipeline::InputError;
using pipeline::ParticleSet;
using pipeline::ReadOptions;

/// A folder of its own for each test, with the files that the test puts there.
class ParticleFiles : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = (fs::temp_directory_path() / "kelpa-XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
    }
    void TearDown() override { fs::remove_all(folder); }

    std::string file(std::string const& name, std::string const& bytes) const {
        std::ofstream(folder / name, std::ios::binary) << bytes;
        return (folder / name).string();
    }
    ParticleSet read(std::string const& bytes, ReadOptions const& options = {}) const {
        return readParticleFile(file("particles", bytes), options);
    }
    /// What reading says is wrong, without the name of the folder.
    std::string complaint(std::string const& path, ReadOptions const& options = {}) const {
        try {
            readParticleFile(path, options);
        } catch (InputError const& error) {
            std::string text = error.what() + pipeline::tool::hintText(error.hint);
            std::size_t const at = text.find(folder.string() + "/");
            return at == 0 ? text.substr(folder.string().size() + 1) : text;
        }
        return "no complaint";
    }
    std::string complaintAbout(std::string const& bytes, ReadOptions const& options = {}) const {
        return complaint(file("a", bytes), options);
    }

    fs::path folder;
};

inline bool same(Kelpa::Vector a, Kelpa::Vector b) {
    return a.x == b.x && a.y == b.y && a.z == b.z;
}

inline bool holdsAll(std::string const& text, std::vector<std::string> const& parts) {
    return std::all_of(parts.begin(), parts.end(), [&](std::string const& part) {
        return text.find(part) != std::string::npos;
    });
}

} // namespace kelpatest
