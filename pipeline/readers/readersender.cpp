// Sends columns, notes and errors to whoever started the program.
#include "pipeline/readers/readersender.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <new>

namespace pipeline {

namespace {

void writeAll(void const* bytes, std::size_t count) {
    char const* at = static_cast<char const*>(bytes);
    while (count > 0) {
        ssize_t const written = ::write(STDOUT_FILENO, at, count);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            _exit(0);
        at += written;
        count -= static_cast<std::size_t>(written);
    }
}

void lowerLimit(int resource, rlim_t most) {
    rlimit limit{};
    getrlimit(resource, &limit);
    limit.rlim_cur = std::min({most, limit.rlim_cur, limit.rlim_max});
    setrlimit(resource, &limit);
}

/// Bounds how far this process may grow and how long it may work: a damaged file asks for anything.
void boundResources(std::uint64_t fileBytes) {
    constexpr std::uint64_t pages = 4096;
    constexpr std::uint64_t base = 256 * 1024 * 1024; // the library's own tables, a thread or two
    constexpr std::uint64_t perByte = 64;             // packed values grow about so much at most
    std::uint64_t present = 0;
    std::ifstream("/proc/self/statm") >> present;
    lowerLimit(RLIMIT_AS, present * pages + base + perByte * fileBytes);
    constexpr std::uint64_t baseSeconds = 60;
    constexpr std::uint64_t bytesPerSecond = 1024 * 1024; // no library is so slow
    lowerLimit(RLIMIT_CPU, baseSeconds + fileBytes / bytesPerSecond);
    lowerLimit(RLIMIT_CORE, 0);
}

} // namespace

void ReaderSender::send(ReaderMessage kind, std::string_view bytes) const {
    std::uint64_t const length = bytes.size();
    writeAll(&kind, sizeof kind);
    writeAll(&length, sizeof length);
    writeAll(bytes.data(), bytes.size());
}

void ReaderSender::column(ScalarType type, std::string_view name, std::string_view typeName) const {
    std::string text(1, static_cast<char>('0' + static_cast<int>(type)));
    text.append(name).append("\n").append(typeName);
    send(ReaderMessage::column, text);
}

int runReader(
    std::function<void(ReaderInput const& input, ReaderSender const& sender)> const& read) {
    // The one who started this hears of Ctrl-C itself, and its end is that of this program.
    signal(SIGINT, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    struct stat status {};
    if (fstat(readerFileDescriptor, &status) != 0 || isatty(STDOUT_FILENO) == 1)
        return 2; // started by hand
    ReaderSender const sender;
    ReaderInput const input{"/proc/self/fd/" + std::to_string(readerFileDescriptor),
                            static_cast<std::uint64_t>(status.st_size)};
    sender.send(ReaderMessage::hello, readerGreeting);
    try {
        boundResources(input.bytes);
        read(input, sender);
        sender.send(ReaderMessage::end, {});
    } catch (std::bad_alloc const&) {
        sender.send(ReaderMessage::problem,
                    "it asks for far more memory than its size; it is damaged");
    } catch (std::exception const& error) {
        sender.send(ReaderMessage::problem, error.what());
    }
    // A library's own end, after a failure within it, could only spoil what has been said.
    _exit(0);
}

} // namespace pipeline
