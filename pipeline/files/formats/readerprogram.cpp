// Starts a reader, hears its answer with a time limit, and ends it.
#include "pipeline/files/formats/readerprogram.h"

#include "pipeline/files/formats/readermessages.h"
#include "pipeline/files/inputfile.h"
#include "pipeline/files/textvalues.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

namespace pipeline {

namespace {

namespace fs = std::filesystem;

/// The folders of this code: of the program, or of the module that holds it, and of what runs.
std::vector<fs::path> ownFolders() {
    std::vector<fs::path> folders;
    std::error_code ignored;
    Dl_info own{};
    if (dladdr(reinterpret_cast<void const*>(&findReaderProgram), &own) != 0 &&
        own.dli_fname != nullptr)
        folders.push_back(fs::canonical(own.dli_fname, ignored).parent_path());
    folders.push_back(fs::read_symlink("/proc/self/exe", ignored).parent_path());
    return folders;
}

/// Two ends of a pipe that no other program inherits; they close with this object.
class Pipe {
  public:
    Pipe() { isOpen = pipe2(ends, O_CLOEXEC) == 0; }
    ~Pipe() {
        closeWriting();
        if (isOpen)
            close(ends[0]);
    }
    Pipe(Pipe const&) = delete;
    Pipe& operator=(Pipe const&) = delete;

    void closeWriting() {
        if (isOpen && ends[1] >= 0)
            close(std::exchange(ends[1], -1));
    }

    bool isOpen = false;
    int ends[2] = {-1, -1};
};

/// What is to be done with a new program's descriptors and signals.
class SpawnPlan {
  public:
    SpawnPlan() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnPlan(SpawnPlan const&) = delete;
    SpawnPlan& operator=(SpawnPlan const&) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

/// A running program and the pipe from it; both go with this object.
class RunningReader {
  public:
    RunningReader(InputFile& input, ReaderProgram const& reader, PhaseProgress const& phase)
        : file(input), program(reader), progress(phase) {
        std::string const path = findReaderProgram(program.name);
        if (path.empty())
            file.fail("it is read by the program {}, which is not installed; {}", program.name,
                      program.wayOn);
        start(path);
    }
    ~RunningReader() {
        if (child < 0)
            return;
        kill(child, SIGKILL);
        while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    RunningReader(RunningReader const&) = delete;
    RunningReader& operator=(RunningReader const&) = delete;

    /// Hears whether the program speaks as this one understands.
    void greet() {
        if (next() != ReaderMessage::hello || bytes != readerGreeting)
            file.fail("{} is of another version than this program", program.name);
    }
    /// The next message; what it is about is in `bytes`. Problems are thrown.
    ReaderMessage next() {
        ReaderMessage kind{};
        std::uint64_t length = 0;
        read(&kind, sizeof kind);
        hasSpoken = true;
        read(&length, sizeof length);
        if (length > longestReaderMessage)
            failEnded();
        bytes.resize(static_cast<std::size_t>(length));
        read(bytes.data(), bytes.size());
        if (kind == ReaderMessage::problem)
            file.fail("{}", oneLine(bytes));
        return kind;
    }

    std::string bytes;

  private:
    void start(std::string const& path) {
        SpawnPlan plan;
        // Above the numbers that the program's own get, so that none is overwritten by another.
        int const input = fcntl(file.handle(), F_DUPFD_CLOEXEC, readerFileDescriptor + 1);
        int const output =
            pipe.isOpen ? fcntl(pipe.ends[1], F_DUPFD_CLOEXEC, readerFileDescriptor + 1) : -1;
        posix_spawn_file_actions_addopen(&plan.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&plan.actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&plan.actions, output, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&plan.actions, input, readerFileDescriptor);
        std::string name(program.name);
        std::string of = file.path();
        char* const arguments[] = {name.data(), of.data(), nullptr};
        int const error = input < 0 || output < 0
                              ? errno
                              : posix_spawn(&child, path.c_str(), &plan.actions, &plan.attributes,
                                            arguments, environ);
        for (int const descriptor : {input, output})
            if (descriptor >= 0)
                close(descriptor);
        pipe.closeWriting();
        if (error != 0) {
            child = -1;
            file.fail("{} cannot be started: {}", path, std::strerror(error));
        }
    }

    void read(void* to, std::size_t count) {
        // Looks are counted, not the time: whoever stops the command stops the program as well.
        constexpr std::chrono::milliseconds look(50);
        std::chrono::milliseconds const patience =
            program.patience + std::chrono::seconds(file.sizeOnDisk() / (256 * 1024));
        std::chrono::milliseconds silence(0);
        char* at = static_cast<char*>(to);
        while (count > 0) {
            pollfd waiting{pipe.ends[0], POLLIN, 0};
            int const ready = poll(&waiting, 1, static_cast<int>(look.count()));
            if (progress)
                progress(0.0, file.particles);
            if (ready < 1) {
                silence += ready == 0 ? look : look.zero();
                if (silence > patience)
                    file.fail(
                        "{} has said nothing for {} s and is ended; is it stuck, or the disk?",
                        program.name, silence.count() / 1000);
                continue;
            }
            silence = silence.zero();
            ssize_t const got = ::read(pipe.ends[0], at, count);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                failEnded();
            at += got;
            count -= static_cast<std::size_t>(got);
        }
    }
    [[noreturn]] void failEnded() const {
        if (!hasSpoken) // the loader failed, or what it may use is bounded too tightly
            file.fail("{} ends before it reads; is what it needs installed, and is there memory "
                      "for it?",
                      program.name);
        // A library's failure tells no reason; a bound such as that of `ulimit -v` ends it alike.
        file.fail("{} ends while it reads this file; it is damaged or incomplete, or there is too "
                  "little memory for it",
                  program.library);
    }

    InputFile& file;
    ReaderProgram const& program;
    PhaseProgress const& progress;
    Pipe pipe;
    pid_t child = -1;
    bool hasSpoken = false;
};

/// The column that a message announces. Refuses what is none.
Column columnOf(InputFile const& file, std::string_view message, std::size_t offset) {
    std::size_t const line = message.find('\n');
    auto const type = message.empty() ? std::size_t{0} : static_cast<std::size_t>(message[0] - '0');
    if (line == std::string_view::npos || type > static_cast<std::size_t>(ScalarType::float64))
        file.fail("the program that reads it sends what is no column");
    auto const scalar = static_cast<ScalarType>(type);
    return {std::string(message.substr(1, line - 1)), std::string(message.substr(line + 1)), scalar,
            scalar, offset};
}

} // namespace

std::string findReaderProgram(std::string_view name) {
    std::vector<fs::path> places;
    for (fs::path const& folder : ownFolders())
        for (char const* const from : {".", "../readers", "../../readers", "../libexec/kelpa"})
            places.push_back(folder / from);
    places.emplace_back(KELPA_LIBEXEC_DIR);
    for (fs::path const& place : places)
        if (fs::path const path = place / name; access(path.c_str(), X_OK) == 0)
            return path.string();
    return {};
}

void readByProgram(InputFile& file, ReaderProgram const& program, ColumnNames const& names,
                   ReadOptions const& options, ParticleSet& particles) {
    RunningReader reader(file, program, options.progress);
    reader.greet();
    std::vector<Column> columns;
    std::size_t rowBytes = 0;
    ReaderMessage kind = reader.next();
    for (; kind == ReaderMessage::column || kind == ReaderMessage::note; kind = reader.next()) {
        if (kind == ReaderMessage::note) {
            particles.notes.push_back(fmt::format("{}: {}", file.path(), oneLine(reader.bytes)));
            continue;
        }
        columns.push_back(columnOf(file, reader.bytes, rowBytes));
        rowBytes += scalarBytes(columns.back().stored);
    }
    RowConverter converter(particles, columns, chooseUses(file, columns, names, options, particles),
                           options.summarise);
    for (; kind == ReaderMessage::rows; kind = reader.next()) {
        std::size_t const rows = reader.bytes.size() / rowBytes;
        converter.append(reader.bytes.data(), rows, rowBytes, false);
        file.particles += rows;
    }
}

} // namespace pipeline
