// Reads, unpacks and seeks, and says what went wrong where.
#include "pipeline/files/inputfile.h"

#include "pipeline/files/unpacking.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <stdexcept>
#include <system_error>

namespace pipeline {

namespace {

constexpr std::size_t chunkBytes = 256 * 1024; // fits the second-level cache, 0.1 ms of disk
constexpr std::size_t longestLine = 64 * 1024 * 1024;

std::string systemMessage(int error) {
    return std::generic_category().message(error);
}

} // namespace

/// The state of unpacking: packed bytes at hand, and the stream that they belong to.
struct InputFile::Packed {
    explicit Packed(Packing const& packing) : kind(packing), unpacking(packing.make()) {}

    std::string_view left() const { return {raw.data() + begin, end - begin}; }

    Packing const& kind;
    std::unique_ptr<Unpacking> unpacking;
    bool betweenStreams = true; ///< at the start, and after each stream's checksum
    std::vector<char> raw = std::vector<char>(chunkBytes);
    std::size_t begin = 0; ///< bytes [begin, end) of `raw` are at hand
    std::size_t end = 0;
};

InputFile::InputFile(std::string path, PhaseProgress phase)
    : filePath(std::move(path)), progress(std::move(phase)) {
    if (filePath.empty())
        throw InputError("the name of a file is empty");
    struct stat status {};
    if (stat(filePath.c_str(), &status) != 0)
        fail("cannot be opened: {}{}", systemMessage(errno),
             filePath == "-" ? "; standard input is /dev/stdin" : "");
    if (S_ISDIR(status.st_mode))
        fail("is a folder, not a particle file");
    regular = S_ISREG(status.st_mode);
    if (regular)
        size = static_cast<std::uint64_t>(status.st_size);

    descriptor = open(filePath.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        fail("cannot be opened: {}", systemMessage(errno));
    try {
        buffer.resize(chunkBytes);
        if (Packing const* const packing = packingOf(peek(longestPackingMagic))) {
            if (packing->make == nullptr)
                fail("it is packed by {}, which this kelpa was built without; unpack it first",
                     packing->name);
            // What was read so far is the first input of the unpacking.
            packed = std::make_unique<Packed>(*packing);
            std::memcpy(packed->raw.data(), buffer.data(), end);
            packed->end = end;
            end = 0;
        }
        if (peek(1).empty())
            fail("the file is empty");
    } catch (...) {
        close(descriptor);
        throw;
    }
}

InputFile::~InputFile() {
    close(descriptor);
}

std::string_view InputFile::packing() const {
    return packed ? packed->kind.name : std::string_view();
}

std::optional<std::uint64_t> InputFile::bytesLeft() const {
    if (!regular || packed)
        return std::nullopt;
    // A file that still grows while it is read may be ahead of the size it had.
    return (std::max(size, rawBytesRead) - rawBytesRead) + (end - begin);
}

std::string_view InputFile::peek(std::size_t wanted) {
    while (end - begin < wanted && fetch()) {
    }
    return {buffer.data() + begin, end - begin};
}

std::uint64_t InputFile::skip(std::uint64_t count) {
    std::uint64_t left = count;
    if (std::size_t const atHand = end - begin; regular && !packed && left > atHand) {
        take(atHand);
        left -= atHand;
        // What a file that grows has beyond its size of before is read.
        std::uint64_t const onDisk = std::max(size, rawBytesRead) - rawBytesRead;
        auto const step = static_cast<off_t>(std::min(left, onDisk));
        if (lseek(descriptor, step, SEEK_CUR) < 0)
            fail("cannot be read: {}", systemMessage(errno));
        rawBytesRead += static_cast<std::uint64_t>(step);
        left -= static_cast<std::uint64_t>(step);
    }
    while (left > 0 && !peek(1).empty()) {
        std::uint64_t const step = std::min<std::uint64_t>(left, end - begin);
        take(static_cast<std::size_t>(step));
        left -= step;
    }
    return count - left;
}

/// Bytes of the next line with its end, all of them at hand afterwards; 0 at the end of the file.
std::size_t InputFile::lineLength() {
    std::size_t searched = 0;
    for (;;) {
        std::string_view const window{buffer.data() + begin, end - begin};
        std::size_t const length = window.find('\n', searched);
        if (length != std::string_view::npos)
            return length + 1;
        if (window.size() > longestLine)
            fail("line {} is longer than {} MiB; this is no text", linesTaken + 1,
                 longestLine / (1024 * 1024));
        if (!fetch())
            return window.size();
        searched = window.size();
    }
}

std::optional<std::string_view> InputFile::firstLine(std::size_t length) const {
    if (length == 0)
        return std::nullopt;
    std::string_view line{buffer.data() + begin, length};
    line.remove_suffix(line.ends_with('\n') ? 1 : 0);
    line.remove_suffix(line.ends_with('\r') ? 1 : 0);
    return line;
}

std::optional<std::string_view> InputFile::peekLine() {
    return firstLine(lineLength());
}

std::optional<std::string_view> InputFile::nextLine() {
    std::size_t const length = lineLength();
    std::optional<std::string_view> const line = firstLine(length);
    take(length);
    linesTaken += line ? 1 : 0;
    return line;
}

void InputFile::verifyChecksum() {
    while (packed && !peek(1).empty())
        begin = end;
}

/// Adds bytes behind those at hand, making room first; false at the end of the file.
bool InputFile::fetch() {
    if (ended)
        return false;
    poll();
    std::memmove(buffer.data(), buffer.data() + begin, end - begin);
    end -= begin;
    begin = 0;
    if (end == buffer.size())
        buffer.resize(2 * buffer.size());
    std::size_t const got = packed ? unpackSome(buffer.data() + end, buffer.size() - end)
                                   : readRaw(buffer.data() + end, buffer.size() - end);
    end += got;
    ended = got == 0;
    return !ended;
}

void InputFile::poll() const {
    if (progress)
        progress(size > 0
                     ? std::min(1.0, static_cast<double>(rawBytesRead) / static_cast<double>(size))
                     : 0.0,
                 particles);
}

/// Reads from the file as it is on disk; 0 at its end.
std::size_t InputFile::readRaw(char* to, std::size_t space) {
    for (;;) {
        if (!regular)
            waitForBytes();
        ssize_t const got = read(descriptor, to, space);
        if (got >= 0) {
            rawBytesRead += static_cast<std::uint64_t>(got);
            return static_cast<std::size_t>(got);
        }
        if (errno != EINTR)
            fail("cannot be read: {}", systemMessage(errno));
        poll();
    }
}

/// Waits until a pipe or terminal has something to read or ends.
void InputFile::waitForBytes() const {
    constexpr int look = 50; // milliseconds
    pollfd waiting{descriptor, POLLIN, 0};
    while (::poll(&waiting, 1, look) < 1) // no wait for bytes may follow a signal
        poll();
}

/// Puts more packed bytes behind those not yet used; false at the end of the file.
bool InputFile::refill() {
    std::string_view const left = packed->left();
    std::memmove(packed->raw.data(), left.data(), left.size());
    packed->begin = 0;
    packed->end = left.size();
    poll(); // a long row of empty streams gives no bytes, and so no fetch
    std::size_t const got =
        readRaw(packed->raw.data() + packed->end, packed->raw.size() - packed->end);
    packed->end += got;
    return got > 0;
}

/// Whether another stream of the same kind follows. What follows the last and is none itself, such
/// as the zeros that pad a tape block, is ignored, as gzip does.
bool InputFile::beginsStream() {
    while (packed->left().size() < longestPackingMagic && refill()) {
    }
    if (packingOf(packed->left()) != &packed->kind)
        return false;
    packed->unpacking->begin();
    packed->betweenStreams = false;
    return true;
}

/// Unpacks until there is at least one byte; 0 after the last stream.
std::size_t InputFile::unpackSome(char* to, std::size_t space) {
    std::span<char> out(to, space);
    while (out.size() == space) {
        if (packed->betweenStreams) {
            if (!beginsStream())
                return 0;
        } else if (packed->left().empty() && !refill()) {
            fail("the {} data ends early, after {} bytes; the file is incomplete",
                 packed->kind.name, rawBytesRead);
        }
        std::span<char const> in(packed->left());
        try {
            packed->betweenStreams = packed->unpacking->unpack(in, out);
        } catch (std::runtime_error const& error) {
            fail("the {} data is damaged near byte {}: {}", packed->kind.name,
                 rawBytesRead - in.size(), error.what());
        }
        packed->begin = packed->end - in.size();
    }
    return space - out.size();
}

} // namespace pipeline
