// A temporary name beside the final one, and what happens to it at every kind of end.
#include "pipeline/files/outputfile.h"

#include "pipeline/files/errors.h"

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
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace pipeline {

namespace fs = std::filesystem;

namespace {

constexpr int lookMilliseconds = 20; // between two looks for Ctrl-C while waiting for a pipe
constexpr std::size_t flushBytes = 8 * 1024 * 1024; // so that no wait for the disk is long

std::mutex existingMutex;
int existing = 0; // under `existingMutex`

/// A name in the same folder that tells whose it is, cut where the folder takes no longer ones.
std::string temporaryName(std::string const& target, int attempt) {
    fs::path const folder = fs::path(target).parent_path();
    std::string name = fs::path(target).filename().string();
    std::string const end = fmt::format(".{}-{}.part", getpid(), attempt);
    long const longest = pathconf(folder.empty() ? "." : folder.c_str(), _PC_NAME_MAX);
    constexpr long usual = 255;
    std::size_t const room = static_cast<std::size_t>(longest > 0 ? longest : usual) - end.size();
    if (name.size() > room) {
        auto const isInside = [](char c) {
            return (static_cast<unsigned char>(c) & 0xC0U) == 0x80;
        };
        std::size_t cut = room;
        while (cut > 0 && isInside(name[cut])) // never within a letter of several bytes
            --cut;
        name.resize(cut);
    }
    return (folder / (name + end)).string();
}

} // namespace

OutputFile::Counted::Counted() {
    std::lock_guard const guard(existingMutex);
    ++existing;
}

OutputFile::Counted::~Counted() {
    std::lock_guard const guard(existingMutex);
    --existing;
}

void OutputFile::ifNoneExists(std::function<void()> const& end) {
    std::lock_guard const guard(existingMutex);
    if (existing == 0)
        end();
}

void OutputFile::mayGoOn() const {
    if (stopCheck)
        stopCheck();
}

OutputFile::OutputFile(std::string wantedPath, StopCheck check)
    : stopCheck(std::move(check)), path(std::move(wantedPath)) {
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
    while (!bytes.empty()) {
        mayGoOn();
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
    if (keepsPlace)
        copyInto();
    int const closed = close(descriptor);
    descriptor = -1;
    if (closed != 0)
        fail(errno);
    if (isTemporary && !keepsPlace)
        rename();
}

void OutputFile::rename() {
    if (std::rename(written.c_str(), target.c_str()) != 0)
        fail(errno);
    isTemporary = false;
}

/// Puts the bytes into the file that is there, which so stays the same one under all its names.
/// Room is made first: a full disk leaves what was in it.
void OutputFile::copyInto() {
    struct stat whole {};
    struct stat before {};
    int const there = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
    int const here = ::open(written.c_str(), O_RDONLY | O_CLOEXEC);
    int error =
        there < 0 || here < 0 || fstat(here, &whole) != 0 || fstat(there, &before) != 0 ? errno : 0;
    if (error == 0 && whole.st_size > before.st_size) {
        error = posix_fallocate(there, before.st_size, whole.st_size - before.st_size);
        if (error != 0) {
            [[maybe_unused]] int const cutBack = ftruncate(there, before.st_size);
        }
    }
    std::vector<char> bytes(flushBytes);
    while (error == 0) {
        ssize_t const count = ::read(here, bytes.data(), bytes.size());
        if (count == 0)
            break;
        for (ssize_t done = 0; error == 0 && done < count;) {
            ssize_t const taken =
                ::write(there, bytes.data() + done, static_cast<std::size_t>(count - done));
            error = taken < 0 ? errno : 0;
            done += taken;
        }
        error = count < 0 ? errno : error;
    }
    if (error == 0 && (ftruncate(there, whole.st_size) != 0 || fsync(there) != 0))
        error = errno;
    for (int const opened : {there, here})
        if (opened >= 0)
            close(opened);
    if (error != 0)
        fail(error);
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

std::string OutputFile::destinationOf(std::string const& path) {
    fs::path place = path;
    std::error_code error;
    constexpr int manyLinks = 40; // as many as the system follows
    for (int i = 0; i < manyLinks && fs::is_symlink(fs::symlink_status(place, error)); ++i)
        place = place.parent_path() / fs::read_symlink(place, error);
    return place.string();
}

void OutputFile::resolve() {
    std::error_code error;
    fs::file_status const status = fs::status(path, error);
    if (path.empty())
        fail(ENOENT);
    if (fs::is_directory(status))
        fail(EISDIR);
    if (!fs::status_known(status)) // links in a circle, a folder that may not be looked into
        fail(error.value());
    isReplacing = fs::is_regular_file(status);
    isTemporary = !fs::exists(status) || isReplacing;
    // A link stays one: what it leads to is made or replaced.
    target = isTemporary ? destinationOf(path) : path;
    // Renaming would replace a read-only file too; who protects a file means its content.
    if (isReplacing && access(target.c_str(), W_OK) != 0)
        fail(errno);
}

void OutputFile::open() {
    written = target;
    if (isTemporary)
        openTemporary();
    else
        descriptor = openExisting();
    if (descriptor >= 0)
        return isReplacing ? resemble() : void();
    int const reason = errno;
    fs::path const folder = fs::path(target).parent_path();
    std::error_code error;
    if (reason == ENOENT && !folder.empty() && !fs::exists(folder, error))
        throw OutputError(
            fmt::format("{}: cannot be written: there is no folder {}", path, folder.string()));
    fail(reason);
}

void OutputFile::openTemporary() {
    for (int attempt = 0; attempt < 100; ++attempt) {
        written = temporaryName(target, attempt);
        descriptor = ::open(written.c_str(), O_WRONLY | O_CLOEXEC | O_CREAT | O_EXCL, 0666);
        if (descriptor >= 0 || errno != EEXIST)
            return;
    }
}

/// Gives the temporary file the owner and the mode of the one that it replaces, before there is
/// anything in it to see.
void OutputFile::resemble() {
    struct stat old {};
    struct stat own {};
    if (stat(target.c_str(), &old) != 0 || fstat(descriptor, &own) != 0)
        fail(errno);
    bool const isOwned = (old.st_uid == own.st_uid && old.st_gid == own.st_gid) ||
                         fchown(descriptor, old.st_uid, old.st_gid) == 0;
    // Some file systems know no modes; there is none to keep then.
    static_cast<void>(fchmod(descriptor, old.st_mode & 07777U));
    keepsPlace = old.st_nlink > 1 || !isOwned;
}

/// Opens what is no ordinary file; a pipe when its reader comes.
int OutputFile::openExisting() const {
    for (;;) {
        int const opened = ::open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK);
        if (opened >= 0 || errno != ENXIO || !fs::is_fifo(target))
            return opened;
        mayGoOn();
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

} // namespace pipeline
