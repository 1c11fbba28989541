// Trees beyond a bound of memory, in files that are kept, and all that can happen to those.

#include "pipeline/files/errors.h"
#include "pipeline/scene/blockstore.h"

#include "tests/support/allocationfailure.h"
#include "tests/support/blockscene.h"
#include "tests/support/pixels.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

namespace fs = std::filesystem;
using kelpatest::blocksOf;
using kelpatest::builtScene;
using kelpatest::expectSamePixels;
using kelpatest::pictureOf;
using kelpatest::RecordingProgress;
using namespace pipeline;

constexpr std::int64_t small = 1000; // particles of a block: a ray meets ten of them

StoreFigures figuresOf(Scene const& scene) {
    return scene.geometry->statistics().store.value();
}

/// A folder of files that goes when the test does.
struct Folder {
    Folder() {
        std::string name = (fs::temp_directory_path() / "kelpa-cache-XXXXXX").string();
        path = mkdtemp(name.data());
    }
    Folder(Folder const&) = delete;
    Folder& operator=(Folder const&) = delete;
    ~Folder() { fs::remove_all(path); }

    std::string fileOf(int block) const { return fmt::format("{}/block-{:06}.kelpa", path, block); }
    std::size_t files() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(path), {}));
    }

    std::string path;
};

TreeOptions cachedIn(std::string const& folder, std::optional<std::uint64_t> memory = {}) {
    TreeOptions options = blocksOf(small);
    options.keep = {memory, folder};
    return options;
}

TEST(BlockStores, HoldNoMoreThanTheirBoundAndGiveTheSamePicture) {
    for (bool const isMoving : {false, true}) {
        SCOPED_TRACE(isMoving);
        Scene const whole = builtScene(isMoving, blocksOf(small));
        Image const expected = pictureOf(whole, 1);
        TreeStatistics const all = whole.geometry->statistics();
        EXPECT_FALSE(all.store);
        TreeOptions options = blocksOf(small);
        for (std::uint64_t const bound : {all.totalBytes / 4, std::uint64_t{1}}) {
            options.keep.memory = bound;
            Scene const scene = builtScene(isMoving, options, 2);
            TreeStatistics const told = scene.geometry->statistics();
            EXPECT_EQ(told.leafEntries, all.leafEntries);
            EXPECT_EQ(told.totalBytes, all.totalBytes);
            EXPECT_EQ(scene.geometry->bounds()->max.y, whole.geometry->bounds()->max.y);
            for (int const threads : {1, 3}) {
                expectSamePixels(pictureOf(scene, threads), expected);
                StoreFigures const figures = figuresOf(scene);
                EXPECT_LE(figures.heldBytes, std::max(bound, all.totalBytes / 100));
                EXPECT_EQ(figures.built, 256);
                EXPECT_GT(figures.loaded, 100);
                EXPECT_GT(figures.written, 128);
                EXPECT_LE(figures.written, 256) << "each once";
            }
            EXPECT_TRUE(scene.geometry->takeNotes().empty());
        }
        // With room enough nothing is written.
        options.keep.memory = 2 * all.totalBytes;
        Scene const roomy = builtScene(isMoving, options, 2);
        expectSamePixels(pictureOf(roomy, 2), expected);
        EXPECT_EQ(figuresOf(roomy).written, 0);
        EXPECT_EQ(figuresOf(roomy).held, 256);
    }
}

TEST(BlockStores, KeepPinnedTreesWhereTheyAre) {
    Scene const scene = kelpatest::blockScene(false, 4000);
    std::vector<System> systems;
    for (int block = 0; block < 4; ++block)
        systems.push_back({scene.first->part(1000 * block, 1000), std::nullopt, 1000 * block});
    TreeOptions options;
    options.keep.memory = 1; // each is larger
    BlockStore store(systems, options);
    RecordingProgress progress;
    for (std::size_t block = 0; block < 4; ++block)
        store.fill(block, progress);
    EXPECT_TRUE(store.isHeld(3));
    BlockStore::Pin const first = store.pin(0);
    EXPECT_FALSE(store.isHeld(3)) << "nobody pins it";
    {
        BlockStore::Pin const second = store.pin(1);
        EXPECT_EQ(store.pin(0), first);
        EXPECT_TRUE(store.isHeld(0) && store.isHeld(1));
    }
    BlockStore::Pin const third = store.pin(2);
    EXPECT_TRUE(store.isHeld(0) && !store.isHeld(1) && store.isHeld(2));
    EXPECT_EQ(first->statistics().used, 999);
    EXPECT_EQ(store.figures().held, 2);

    // Many threads at a time, each with several pins.
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&store, thread] {
            for (int i = 0; i < 200; ++i) {
                std::int32_t const block = (thread + i * 3) % 4;
                BlockStore::Pin const one = store.pin(block);
                BlockStore::Pin const other = store.pin((block + 1 + i % 3) % 4);
                EXPECT_EQ(one->statistics().used, block == 0 ? 999 : 1000);
                EXPECT_EQ(other->statistics().particles, 1000);
            }
        });
    threads.clear();
    EXPECT_EQ(store.figures().written, 4);
    EXPECT_EQ(store.figures().built, 4);
}

TEST(BlockStores, FindTheirTreesInACacheThatIsOfTheSame) {
    for (bool const isMoving : {false, true}) {
        SCOPED_TRACE(isMoving);
        Image const expected = pictureOf(builtScene(isMoving, blocksOf(small), 1, 20000), 1);
        Folder const folder;
        TreeOptions const options = cachedIn(folder.path + "/made");
        Scene const first = builtScene(isMoving, options, 2, 20000);
        expectSamePixels(pictureOf(first, 1), expected);
        EXPECT_EQ(figuresOf(first).written, 32);
        for (std::optional<std::uint64_t> const bound : {std::optional<std::uint64_t>{}, {50000}}) {
            Scene const again =
                builtScene(isMoving, cachedIn(folder.path + "/made", bound), 3, 20000);
            StoreFigures const figures = figuresOf(again);
            EXPECT_EQ(figures.found, 32);
            EXPECT_EQ(figures.built + static_cast<std::int64_t>(figures.written), 0);
            TreeStatistics const told = again.geometry->statistics();
            TreeStatistics const built = first.geometry->statistics();
            EXPECT_EQ(told.totalBytes, built.totalBytes);
            EXPECT_EQ(told.nodes, built.nodes);
            EXPECT_EQ(told.leaves.has_value(), !isMoving);
            EXPECT_EQ(again.geometry->bounds()->min.x, first.geometry->bounds()->min.x);
            expectSamePixels(pictureOf(again, 2), expected);
            EXPECT_TRUE(again.geometry->takeNotes().empty());
        }
        // Other particles, and other options, are told and built.
        TreeOptions shallow = options;
        shallow.maxDepth = 20;
        for (bool const hasOtherParticles : {false, true}) {
            Scene const other = builtScene(isMoving, hasOtherParticles ? options : shallow, 2,
                                           hasOtherParticles ? 19000 : 20000);
            EXPECT_EQ(figuresOf(other).built, 32);
            std::vector<std::string> const notes = other.geometry->takeNotes();
            ASSERT_EQ(notes.size(), 1U);
            EXPECT_NE(notes[0].find("block-000000.kelpa is of other particles"), notes[0].npos)
                << notes[0];
            EXPECT_NE(notes[0].find("31 other files"), notes[0].npos);
        }
    }
    // A single tree is kept as well.
    Folder const folder;
    TreeOptions options = cachedIn(folder.path);
    options.block = 1 << 20;
    Image const expected = pictureOf(builtScene(false, blocksOf(1 << 20), 1, 3000), 1);
    for (std::int64_t const found : {0, 1}) {
        Scene const scene = builtScene(false, options, 1, 3000);
        EXPECT_EQ(figuresOf(scene).found, found);
        expectSamePixels(pictureOf(scene, 1), expected);
    }
}

void overwrite(std::string const& file, std::streamoff at, std::string const& bytes) {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(at);
    stream << bytes;
}

TEST(BlockStores, BuildAnewWhatIsDamagedForeignOrGoneAndSaySo) {
    Image const expected = pictureOf(builtScene(false, blocksOf(small), 1, 20000), 1);
    struct Damage {
        char const* said;
        void (*to)(std::string const& file);
    };
    Damage const damages[] = {
        {"is cut short", [](auto const& file) { fs::resize_file(file, fs::file_size(file) / 2); }},
        {"is cut short", [](auto const& file) { fs::resize_file(file, 0); }},
        {"is damaged", [](auto const& file) { overwrite(file, 3000, "?!"); }},
        {"is damaged", [](auto const& file) { overwrite(file, 100, "?!"); }},
        {"is damaged", [](auto const& file) { std::ofstream(file, std::ios::app) << "more"; }},
        {"is no file of a block", [](auto const& file) { overwrite(file, 0, "PNG"); }},
        {"another byte order",
         [](auto const& file) {
             overwrite(file, 8, {1, 2, 3, 4});
         }},
        {"another version", [](auto const& file) { overwrite(file, 12, "\x02"); }},
        {"is gone", [](auto const& file) { fs::remove_all(file); }}};
    for (std::optional<std::uint64_t> const bound : {std::optional<std::uint64_t>{}, {50000}})
        for (bool const isBetweenUses : {false, true}) {
            Folder const folder;
            TreeOptions const options = cachedIn(folder.path, bound);
            for (Damage const& damage : damages) {
                SCOPED_TRACE(damage.said);
                fs::remove_all(folder.fileOf(3));
                Scene scene = builtScene(false, options, 1, 20000);
                damage.to(folder.fileOf(3));
                if (!isBetweenUses)
                    scene = builtScene(false, options, 2, 20000);
                expectSamePixels(pictureOf(scene, 2), expected);
                std::vector<std::string> const notes = scene.geometry->takeNotes();
                bool const isMet = bound || !isBetweenUses;
                bool const isJustMissing = !isBetweenUses && damage.said == std::string("is gone");
                std::string const told = notes.empty() ? "" : notes[0];
                EXPECT_EQ(told.find(folder.fileOf(3)) == 0 && told.find(damage.said) != told.npos,
                          isMet && !isJustMissing)
                    << told;
            }
        }
}

/// Lets no file grow beyond so many bytes while it lives.
struct SmallDisk {
    explicit SmallDisk(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before);
        rlimit const limit{bytes, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    SmallDisk(SmallDisk const&) = delete;
    SmallDisk& operator=(SmallDisk const&) = delete;
    ~SmallDisk() { setrlimit(RLIMIT_FSIZE, &before); }

    rlimit before{};
};

std::string errorOf(TreeOptions const& options) {
    try {
        builtScene(false, options, 2, 20000);
    } catch (OutputError const& error) {
        return error.what();
    }
    return "";
}

TEST(BlockStores, NameTheFileThatTheDiskHasNoRoomFor) {
    Image const expected = pictureOf(builtScene(false, blocksOf(small), 1, 20000), 1);
    Folder const folder;
    TreeOptions bounded = blocksOf(small);
    bounded.keep.memory = 50000;
    SmallDisk const disk(10000);
    EXPECT_NE(errorOf(bounded).find("cannot hold the blocks"), std::string::npos);
    EXPECT_EQ(errorOf(cachedIn(folder.path, 50000)).find(folder.path), 0U);
    for (std::string const& full : {folder.path, std::string("/proc")}) {
        Scene const scene = builtScene(false, cachedIn(full), 2, 20000);
        expectSamePixels(pictureOf(scene, 1), expected);
        std::vector<std::string> const notes = scene.geometry->takeNotes();
        ASSERT_EQ(notes.size(), 1U) << "not one for each block";
        EXPECT_EQ(notes[0].find(full), 0U) << notes[0];
    }
    EXPECT_EQ(folder.files(), 0U);
    EXPECT_NE(errorOf(cachedIn(folder.path + "/none/such")).find("is no folder"),
              std::string::npos);
}

TEST(BlockStores, EndCleanlyWhenMemoryRunsOutOrTheBuildIsStopped) {
    Image const expected = pictureOf(builtScene(false, blocksOf(small), 1, 20000), 1);
    Folder const folder;
    for (TreeOptions const& options : {cachedIn("", 50000), cachedIn(folder.path, 50000)}) {
        Scene scene = builtScene(false, options, 1, 20000);
        int failures = 0;
        for (long first = 0; first < 6000; first = first * 5 / 4 + 1) {
            RecordingProgress progress;
            kelpatest::FailingAllocations const failing(first);
            try {
                if (first % 2 == 0)
                    fs::remove(folder.fileOf(1));
                scene.geometry->build({progress, 3}, options);
                pictureOf(scene, 1);
            } catch (...) { // of the standard library or of the trees
                ++failures;
            }
        }
        EXPECT_GT(failures, 10);
        for (long poll = 1; poll < 200000; poll = 3 * poll + 1) {
            fs::remove(folder.fileOf(1));
            RecordingProgress progress(poll);
            scene.geometry->build({progress, 2}, options);
            pictureOf(scene, 1); // of a part of them
        }
        RecordingProgress progress;
        scene.geometry->build({progress, 2}, options);
        expectSamePixels(pictureOf(scene, 2), expected);
    }
    EXPECT_EQ(folder.files(), 32U) << "none under a temporary name";
}

} // namespace
