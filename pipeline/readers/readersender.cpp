// Sends columns, notes and errors to whoever started the program.
#include "pipeline/readers/readersender.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <fstream>
#include <new>
#include <span>

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

/// Whether the limit was higher before.
bool lowerLimit(int resource, rlim_t most) {
    rlimit limit{};
    getrlimit(resource, &limit);
    bool const wasHigher = std::min(limit.rlim_cur, limit.rlim_max) > most;
    limit.rlim_cur = std::min({most, limit.rlim_cur, limit.rlim_max});
    setrlimit(resource, &limit);
    return wasHigher;
}

/// Bounds how far this process may grow and how long it may work: a damaged file asks for anything.
/// Whether the bound of memory is the file's, and not one that was there before.
bool boundResources(std::uint64_t fileBytes) {
    constexpr std::uint64_t pages = 4096;
    constexpr std::uint64_t base = 256 * 1024 * 1024; // the library's own tables, a thread or two
    constexpr std::uint64_t perByte = 64;             // packed values grow about so much at most
    std::uint64_t present = 0;
    std::ifstream("/proc/self/statm") >> present;
    bool const isOwn = lowerLimit(RLIMIT_AS, present * pages + base + perByte * fileBytes);
    constexpr std::uint64_t baseSeconds = 60;
    constexpr std::uint64_t bytesPerSecond = 1024 * 1024; // no library is so slow
    lowerLimit(RLIMIT_CPU, baseSeconds + fileBytes / bytesPerSecond);
    lowerLimit(RLIMIT_CORE, 0);
    return isOwn;
}

std::vector<std::string> splitAtCommas(std::string_view list) {
    std::vector<std::string> words;
    while (!list.empty()) {
        words.emplace_back(list.substr(0, list.find(',')));
        list.remove_prefix(std::min(list.size(), words.back().size() + 1));
    }
    return words;
}

/// Takes what is wanted from the program's arguments.
void takeWishes(ReaderInput& input, std::span<char* const> arguments) {
    for (std::string_view const argument : arguments) {
        std::size_t const sign = std::min(argument.size(), argument.find('='));
        std::string_view const key = argument.substr(0, sign);
        std::string_view const value = argument.substr(std::min(argument.size(), sign + 1));
        if (key == "frame")
            std::from_chars(value.data(), value.data() + value.size(), input.frame);
        else if (key == "find")
            input.findOnly = true;
        else if (key == "kinds")
            input.kinds = splitAtCommas(value);
        else if (key == "columns" && sign < argument.size()) {
            input.wantsAll = false;
            for (std::string& name : splitAtCommas(value))
                input.columns.insert(std::move(name));
        }
    }
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

void ReaderSender::fact(std::string_view what, std::string_view value) const {
    send(ReaderMessage::fact, fmt::format("{}\n{}", what, value));
}

void ReaderSender::names(std::vector<std::pair<std::int64_t, std::string>> const& entries) const {
    std::string text;
    for (auto const& [number, name] : entries)
        text += fmt::format("{} {}\n", number, name);
    send(ReaderMessage::names, text);
}

int ReaderInput::frameOf(std::size_t count) const {
    int const frames = static_cast<int>(count);
    int const wanted = frame + (frame < 0 ? frames : 0);
    if (wanted < 0 || wanted >= frames)
        throw NoSuchReaderFrame(
            fmt::format("no frame {}; it has {} (the first is 0, the last -1)", frame, frames));
    return wanted;
}

int runReader(
    int argc, char** argv,
    std::function<void(ReaderInput const& input, ReaderSender const& sender)> const& read) {
    // The one who started this hears of Ctrl-C itself, and its end is that of this program.
    signal(SIGINT, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    struct stat status {};
    if (argc < 2 || fstat(readerFileDescriptor, &status) != 0 || isatty(STDOUT_FILENO) == 1)
        return 2; // started by hand
    ReaderSender const sender;
    ReaderInput input;
    input.path = "/proc/self/fd/" + std::to_string(readerFileDescriptor);
    input.namedPath = argv[1];
    input.bytes = static_cast<std::uint64_t>(status.st_size);
    takeWishes(input, std::span(argv + 2, static_cast<std::size_t>(argc - 2)));
    bool isBoundOwn = true;
    sender.send(ReaderMessage::hello, readerGreeting);
    try {
        isBoundOwn = boundResources(input.bytes);
        read(input, sender);
        sender.send(ReaderMessage::end, {});
    } catch (std::bad_alloc const&) {
        if (isBoundOwn)
            sender.send(ReaderMessage::problem,
                        "it asks for far more memory than its size; it is damaged");
        else
            sender.send(ReaderMessage::memory, {});
    } catch (NoSuchReaderFrame const& error) {
        sender.send(ReaderMessage::noFrame, error.what());
    } catch (std::exception const& error) {
        sender.send(ReaderMessage::problem, error.what());
    }
    // A library's own end, after a failure within it, could only spoil what has been said.
    _exit(0);
}

} // namespace pipeline
