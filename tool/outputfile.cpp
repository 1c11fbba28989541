#include "tool/outputfile.h"

#include "kelpa/host/consoleprogress.h"

#include "tool/particlefile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <thread>

namespace kelpatool {

namespace fs = std::filesystem;

namespace {

constexpr int lookMilliseconds = 20; // between two looks for Ctrl-C while waiting for a pipe

void throwIfInterrupted() {
    if (Kelpa::InterruptScope::interrupted())
        throw Interrupted();
}

} // namespace

OutputFile::OutputFile(std::string const& wantedPath) : path(wantedPath) {
    resolve();
    open();
}

OutputFile::~OutputFile() {
    if (descriptor >= 0)
        close(descriptor);
    if (isTemporary)
        unlink(written.c_str());
}

void OutputFile::write(std::string_view bytes) {
    // In steps, so that no wait for the disk is so long that an interruption would be late.
    constexpr std::size_t flushBytes = 8 * 1024 * 1024;
    while (!bytes.empty()) {
        throwIfInterrupted();
        ssize_t const count = ::write(descriptor, bytes.data(), std::min(bytes.size(), flushBytes));
        if (count < 0 && errno == EAGAIN) { // a pipe whose reader is slow
            pollfd waiting{descriptor, POLLOUT, 0};
            poll(&waiting, 1, lookMilliseconds);
            continue;
        }
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            fail(errno);
        bytes.remove_prefix(static_cast<std::size_t>(count));
        unflushed += static_cast<std::size_t>(count);
        if (unflushed >= flushBytes)
            flush();
    }
}

void OutputFile::commit() {
    flush();
    int const closed = close(descriptor);
    descriptor = -1;
    if (closed != 0)
        fail(errno);
    if (isTemporary && std::rename(written.c_str(), target.c_str()) != 0)
        fail(errno);
    isTemporary = false;
}

void OutputFile::check(std::string const& path) {
    // Opening a pipe would wait for its reader, and closing it would tell him that all is over.
    std::error_code error;
    fs::file_status const status = fs::status(path, error);
    if (fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status) &&
        access(path.c_str(), W_OK) == 0)
        return;
    OutputFile const attempt(path);
}

void OutputFile::resolve() {
    std::error_code error;
    fs::file_status const status = fs::status(path, error);
    if (path.empty())
        fail(ENOENT);
    if (fs::is_directory(status))
        fail(EISDIR);
    target = path;
    isTemporary = !fs::exists(status) || fs::is_regular_file(status);
    if (!fs::is_regular_file(status))
        return;
    // A link stays one: what it leads to is replaced. Renaming would replace a read-only file too;
    // who protects a file means its content.
    fs::path const canonical = fs::canonical(path, error);
    if (!error)
        target = canonical.string();
    if (access(target.c_str(), W_OK) != 0)
        fail(errno);
}

void OutputFile::open() {
    written = target;
    int const flags = O_WRONLY | O_CLOEXEC;
    if (!isTemporary)
        descriptor = openExisting();
    for (int attempt = 0; isTemporary && descriptor < 0 && attempt < 100; ++attempt) {
        written = fmt::format("{}.{}-{}.part", target, getpid(), attempt);
        descriptor = ::open(written.c_str(), flags | O_CREAT | O_EXCL, 0666);
        if (descriptor < 0 && errno != EEXIST)
            break;
    }
    if (descriptor >= 0)
        return;
    int const reason = errno;
    fs::path const folder = fs::path(target).parent_path();
    std::error_code error;
    if (reason == ENOENT && !folder.empty() && !fs::exists(folder, error))
        throw OutputError(
            fmt::format("{}: cannot be written: there is no folder {}", path, folder.string()));
    fail(reason);
}

/// Opens what is no ordinary file; a pipe when its reader comes.
int OutputFile::openExisting() const {
    for (;;) {
        int const opened = ::open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK);
        if (opened >= 0 || errno != ENXIO || !fs::is_fifo(target))
            return opened;
        throwIfInterrupted();
        std::this_thread::sleep_for(std::chrono::milliseconds{lookMilliseconds});
    }
}

void OutputFile::flush() {
    unflushed = 0;
    // Some file systems cannot synchronise, pipes need not.
    if (isTemporary && fsync(descriptor) != 0 && errno != EINVAL && errno != ENOTSUP)
        fail(errno);
}

void OutputFile::fail(int error) const {
    throw OutputError(
        fmt::format("{}: cannot be written: {}", path, std::generic_category().message(error)));
}

} // namespace kelpatool
