// Writes and reads trees, in a cache's files or in one without a name.
#include "pipeline/scene/blockfiles.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/outputfile.h"
#include "pipeline/scene/blockhead.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <new>
#include <span>
#include <string_view>
#include <system_error>

namespace pipeline {

namespace fs = std::filesystem;

namespace {

using Bytes = std::span<std::byte const>;

std::string textOf(int error) {
    return std::generic_category().message(error);
}

/// Writes the parts of a block's file, one after the other.
void writeBlock(TreeGeometry& tree, BlockHead const& head,
                std::function<void(Bytes)> const& write) {
    write(std::as_bytes(std::span(&head, 1)));
    Checksum checksum;
    tree.write([&](Bytes bytes) {
        checksum.add(bytes);
        write(bytes);
    });
    std::uint64_t const sum = checksum.result();
    write(std::as_bytes(std::span(&sum, 1)));
}

/// Reads a part of a file from its beginning on.
class Reader {
  public:
    Reader(int descriptor, std::uint64_t begin) : file(descriptor), at(begin) {}

    /// False at the file's end, or when it cannot be read.
    bool read(std::span<std::byte> room) {
        while (!room.empty()) {
            ssize_t const count = pread(file, room.data(), room.size(), static_cast<off_t>(at));
            if (count < 0 && errno == EINTR)
                continue;
            if (count < 0)
                error = errno;
            if (count <= 0)
                return false;
            room = room.subspan(static_cast<std::size_t>(count));
            at += static_cast<std::uint64_t>(count);
        }
        return true;
    }

    int error = 0;

  private:
    int file;
    std::uint64_t at;
};

/// Where files that are too large for memory belong: not where the system may keep them in memory.
std::string temporaryFolder() {
    if (char const* const named = std::getenv("TMPDIR"); named != nullptr && *named != '\0')
        return named;
    std::error_code error;
    return fs::is_directory("/var/tmp", error) ? "/var/tmp" : "/tmp";
}

/// A file for reading and writing that nobody else can find, or -1.
int openUnnamed(std::string const& folder) {
#if defined(O_TMPFILE)
    int const file = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC | O_EXCL, 0600);
    if (file >= 0)
        return file;
#endif
    std::string name = folder + "/kelpa-blocks-XXXXXX"; // where the file system has no such files
    int const named = mkostemp(name.data(), O_CLOEXEC);
    if (named >= 0)
        unlink(name.c_str());
    return named;
}

} // namespace

BlockFiles::BlockFiles(std::vector<System> const& all, TreeOptions const& treeOptions)
    : blocks(all), options(treeOptions), folder(treeOptions.keep.cache), parts(all.size()) {
    if (!isCache())
        return;
    std::error_code error;
    fs::create_directory(folder, error);
    std::error_code isKnown;
    if (!fs::is_directory(folder, isKnown))
        throw OutputError(fmt::format("{}: is no folder for a cache{}", folder,
                                      fs::exists(folder, isKnown) ? "" : ": " + error.message()));
}

BlockFiles::~BlockFiles() {
    if (nameless >= 0)
        close(nameless);
}

std::uint64_t BlockFiles::fingerprintOf(std::size_t block) const {
    // What has no name is of nobody else.
    return isCache() ? pipeline::fingerprintOf(blocks[block], options) : block;
}

std::string BlockFiles::nameOf(std::size_t block) const {
    return isCache() ? (fs::path(folder) / fmt::format("block-{:06}.kelpa", block)).string()
                     : namelessPlace;
}

void BlockFiles::openNameless() {
    if (nameless >= 0)
        return;
    namelessPlace = temporaryFolder();
    nameless = openUnnamed(namelessPlace);
    if (nameless < 0)
        throw OutputError(fmt::format("{}: cannot hold a file of blocks: {}; TMPDIR or a cache "
                                      "names another folder",
                                      namelessPlace, textOf(errno)));
}

std::uint64_t BlockFiles::write(std::size_t block, TreeGeometry& tree, BlockFacts const& facts) {
    BlockHead const head = BlockHead::of(facts, fingerprintOf(block), tree.writtenBytes());
    std::uint64_t const bytes = sizeof head + head.treeBytes + sizeof(std::uint64_t);
    if (isCache()) {
        OutputFile file(nameOf(block));
        writeBlock(tree, head, [&file](Bytes some) {
            file.write({reinterpret_cast<char const*>(some.data()), some.size()});
        });
        file.commit();
        return bytes;
    }
    std::uint64_t at = 0;
    {
        std::lock_guard const guard(mutex);
        openNameless();
        at = end;
        end += bytes;
    }
    Part const part{at, bytes};
    writeBlock(tree, head, [&](Bytes some) {
        while (!some.empty()) {
            ssize_t const count =
                pwrite(nameless, some.data(), some.size(), static_cast<off_t>(at));
            if (count < 0 && errno == EINTR)
                continue;
            if (count < 0)
                throw OutputError(fmt::format("{}: cannot hold the blocks that are not in memory: "
                                              "{}; TMPDIR or a cache names another folder",
                                              namelessPlace, textOf(errno)));
            some = some.subspan(static_cast<std::size_t>(count));
            at += static_cast<std::uint64_t>(count);
        }
    });
    std::lock_guard const guard(mutex);
    parts[block] = part;
    return bytes;
}

BlockFiles::Found BlockFiles::readFrom(int file, std::uint64_t begin, std::uint64_t bytes,
                                       std::size_t block, TreeGeometry* tree) const {
    using State = Found::State;
    Reader reader(file, begin);
    auto const unreadable = [&reader](char const* otherwise) {
        return Found{State::unusable, reader.error != 0 ? "cannot be read: " + textOf(reader.error)
                                                        : std::string(otherwise)};
    };
    BlockHead head;
    if (bytes < sizeof head || !reader.read(std::as_writable_bytes(std::span(&head, 1))))
        return unreadable("is cut short");
    if (auto const fault = head.fault(fingerprintOf(block), bytes))
        return {State::unusable, *fault};
    if (tree == nullptr)
        return {State::whole, "", bytes, head.facts()};
    Checksum checksum;
    bool const isTree = tree->read(
        [&](std::span<std::byte> room) {
            bool const isRead = reader.read(room);
            checksum.add(room);
            return isRead;
        },
        head.treeBytes, options);
    std::uint64_t sum = 0;
    if (!isTree || !reader.read(std::as_writable_bytes(std::span(&sum, 1))) ||
        sum != checksum.result())
        return unreadable("is damaged");
    return {State::whole, "", bytes, head.facts()};
}

BlockFiles::Found BlockFiles::open(std::size_t block, TreeGeometry* tree) const {
    if (!isCache()) {
        Part part;
        {
            std::lock_guard const guard(mutex);
            part = parts[block];
        }
        return part.bytes > 0 ? readFrom(nameless, part.begin, part.bytes, block, tree) : Found{};
    }
    int const file = ::open(nameOf(block).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0 && errno == ENOENT)
        return {};
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
        std::string const why = file < 0 ? "cannot be read: " + textOf(errno) : "is no file";
        if (file >= 0)
            close(file);
        return {Found::State::unusable, why};
    }
    struct Closing {
        int descriptor;
        ~Closing() { close(descriptor); }
    } const closing{file};
    return readFrom(file, 0, static_cast<std::uint64_t>(status.st_size), block, tree);
}

BlockFiles::Found BlockFiles::look(std::size_t block) const {
    return open(block, nullptr);
}

BlockFiles::Found BlockFiles::read(std::size_t block, TreeGeometry& tree) const {
    return open(block, &tree);
}

} // namespace pipeline
