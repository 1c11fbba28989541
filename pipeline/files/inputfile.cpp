#include "pipeline/files/inputfile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace kelpatool {

namespace {

constexpr std::size_t chunkBytes = 256 * 1024; // fits the second-level cache, 0.1 ms of disk
constexpr std::size_t longestLine = 64 * 1024 * 1024;

bool startsGzip(unsigned char const* bytes) {
    return bytes[0] == 0x1f && bytes[1] == 0x8b;
}

std::string systemMessage(int error) {
    return std::generic_category().message(error);
}

} // namespace

/// The state of decompression: one zlib stream over all members of the file.
struct InputFile::Inflation {
    z_stream stream{};
    bool betweenMembers = true; ///< at the start, and after each member's checksum
    unsigned char raw[chunkBytes];

    Inflation() {
        if (inflateInit2(&stream, 15 + 16) != Z_OK) // largest window, gzip wrapping only
            throw std::bad_alloc();
        stream.next_in = raw;
    }
    ~Inflation() { inflateEnd(&stream); }
    Inflation(Inflation const&) = delete;
    Inflation& operator=(Inflation const&) = delete;
};

InputFile::InputFile(std::string path, PhaseProgress phase)
    : filePath(std::move(path)), progress(std::move(phase)) {
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
        std::string_view const head = peek(2);
        if (head.size() >= 2 && startsGzip(reinterpret_cast<unsigned char const*>(head.data()))) {
            // What was read so far is the first input of the decompression.
            inflation = std::make_unique<Inflation>();
            std::memcpy(inflation->raw, buffer.data(), end);
            inflation->stream.avail_in = static_cast<uInt>(end);
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

std::optional<std::uint64_t> InputFile::bytesLeft() const {
    if (!regular || inflation)
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
    while (inflation && !peek(1).empty())
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
    std::size_t const got = inflation ? inflateSome(buffer.data() + end, buffer.size() - end)
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

/// Puts more compressed bytes behind those not yet used; false at the end of the file.
bool InputFile::refill() {
    z_stream& stream = inflation->stream;
    std::memmove(inflation->raw, stream.next_in, stream.avail_in);
    stream.next_in = inflation->raw;
    poll(); // a long row of empty members gives no bytes, and so no fetch
    std::size_t const got = readRaw(reinterpret_cast<char*>(inflation->raw) + stream.avail_in,
                                    sizeof inflation->raw - stream.avail_in);
    stream.avail_in += static_cast<uInt>(got);
    return got > 0;
}

/// Decompresses until there is at least one byte; 0 after the last member.
std::size_t InputFile::inflateSome(char* to, std::size_t space) {
    z_stream& stream = inflation->stream;
    stream.next_out = reinterpret_cast<Bytef*>(to);
    stream.avail_out = static_cast<uInt>(std::min<std::size_t>(space, 1U << 30));
    uInt const before = stream.avail_out;
    while (stream.avail_out == before) {
        if (inflation->betweenMembers) {
            // What follows the last member and is no member itself, such as the zeros that pad a
            // tape block, is ignored, as gzip does.
            while (stream.avail_in < 2 && refill()) {
            }
            if (stream.avail_in < 2 || !startsGzip(stream.next_in))
                return 0;
            inflateReset(&stream);
            inflation->betweenMembers = false;
        } else if (stream.avail_in == 0 && !refill()) {
            fail("the gzip data ends early, after {} bytes; the file is incomplete", rawBytesRead);
        }
        int const result = inflate(&stream, Z_NO_FLUSH);
        if (result == Z_STREAM_END)
            inflation->betweenMembers = true;
        else if (result == Z_MEM_ERROR)
            throw std::bad_alloc();
        else if (result != Z_OK && result != Z_BUF_ERROR)
            fail("the gzip data is damaged near byte {}: {}", rawBytesRead - stream.avail_in,
                 stream.msg != nullptr ? stream.msg : "not a stream");
    }
    return before - stream.avail_out;
}

} // namespace kelpatool
