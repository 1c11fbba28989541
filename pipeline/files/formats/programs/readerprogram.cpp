// Starts a reader, hears its answer with a time limit, and ends it.
#include "pipeline/files/formats/programs/readerprogram.h"

#include "pipeline/files/formats/cellofangles.h"
#include "pipeline/files/formats/programs/readermessages.h"
#include "pipeline/files/inputfile.h"
#include "pipeline/files/spawnplan.h"
#include "pipeline/files/textvalues.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <new>
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

/// A running program and the pipe from it; both go with this object.
class RunningReader {
  public:
    RunningReader(InputFile& input, ReaderProgram const& reader, PhaseProgress const& phase,
                  std::vector<std::string> wishes)
        : file(input), program(reader), progress(phase) {
        std::string const path = findReaderProgram(program.name);
        if (path.empty())
            file.fail("it is read by the program {}, which is not installed; {}", program.name,
                      program.wayOn);
        start(path, std::move(wishes));
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
        if (kind == ReaderMessage::noFrame)
            throw NoSuchFrame(fmt::format("{}: {}", file.path(), oneLine(bytes)));
        if (kind == ReaderMessage::memory)
            throw std::bad_alloc();
        return kind;
    }

    std::string bytes;

  private:
    void start(std::string const& path, std::vector<std::string> wishes) {
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
        std::vector<char*> arguments = {name.data(), of.data()};
        for (std::string& wish : wishes)
            arguments.push_back(wish.data());
        arguments.push_back(nullptr);
        int const error = input < 0 || output < 0
                              ? errno
                              : posix_spawn(&child, path.c_str(), &plan.actions, &plan.attributes,
                                            arguments.data(), environ);
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
        if (isBoundTightly())
            throw std::bad_alloc();
        // A library's failure tells no reason.
        file.fail("{} ends while it reads this file; it is damaged or incomplete, or there is too "
                  "little memory for it",
                  program.library);
    }

    /// Whether `ulimit -v` or the like leaves the program less than it would grant itself.
    bool isBoundTightly() const {
        constexpr std::uint64_t base = std::uint64_t{1} << 30;
        constexpr std::uint64_t perByte = 64;
        rlimit memory{};
        return getrlimit(RLIMIT_AS, &memory) == 0 && memory.rlim_cur != RLIM_INFINITY &&
               memory.rlim_cur < base + perByte * file.sizeOnDisk();
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

/// The table that names by numbers make; null where the numbers are no small ones from 0.
std::shared_ptr<NameTable const> tableOf(std::string_view lines) {
    constexpr std::int64_t most = 4096;
    std::map<std::int64_t, std::string> entries;
    while (!lines.empty()) {
        std::string_view line = lines.substr(0, lines.find('\n'));
        lines.remove_prefix(std::min(lines.size(), line.size() + 1));
        std::int64_t number = -1;
        if (!parseNumber(nextWord(line), number) || number < 0 || number >= most)
            return nullptr;
        entries[number] = line.substr(std::min<std::size_t>(line.size(), 1));
    }
    auto table = std::make_shared<NameTable>();
    for (auto const& [number, name] : entries) {
        while (table->all().size() < static_cast<std::size_t>(number)) // those without a name
            table->numberOf(std::to_string(table->all().size()));
        if (table->numberOf(name) != static_cast<std::uint64_t>(number))
            return nullptr;
    }
    return table;
}

/// Takes a fact that a message tells.
void takeFact(std::string_view message, ParticleSet& particles, std::uint64_t& count) {
    std::string_view const what = message.substr(0, message.find('\n'));
    std::string_view value = message.substr(std::min(message.size(), what.size() + 1));
    auto const number = [&value]<class Number>(Number otherwise) {
        Number found = otherwise;
        return parseNumber(nextWord(value), found) ? found : otherwise;
    };
    if (what == "format")
        particles.format = printable(value);
    else if (what == "frames")
        particles.frameCount = number(1);
    else if (what == "step")
        particles.step = number(std::int64_t{0});
    else if (what == "time")
        particles.time = number(0.0);
    else if (what == "particles")
        count = number(std::uint64_t{0});
    else if (what == "angstrom")
        particles.angstrom = number(1.0F);
    else if (what == "lattice") {
        std::array<double, 6> edges{};
        for (double& length : edges)
            length = number(0.0);
        particles.cell =
            cellOfAngles({edges[0], edges[1], edges[2]}, {edges[3], edges[4], edges[5]});
    } else if (what == "cell") {
        PeriodicCell& cell = particles.cell.emplace();
        for (double& place : cell.origin)
            place = number(0.0);
        for (auto& edge : cell.edges)
            for (double& part : edge)
                part = number(0.0);
        for (bool& isPeriodic : cell.isPeriodic)
            isPeriodic = number(0) != 0;
    }
}

/// What the program is told beside the path.
std::vector<std::string> wishesFor(ColumnNames const& names, ReadOptions const& options) {
    std::vector<std::string> wishes = {fmt::format("frame={}", options.frame)};
    if (options.findOnly)
        wishes.emplace_back("find");
    if (!options.kinds.empty())
        wishes.push_back(fmt::format("kinds={}", fmt::join(options.kinds, ",")));
    if (!options.summarise && !options.allAttributes)
        wishes.push_back(fmt::format("columns={}", fmt::join(namesUsed(names, options), ",")));
    return wishes;
}

/// What comes before the rows: facts and columns.
struct Announced {
    std::vector<Column> columns;
    std::size_t rowBytes = 0;
    std::uint64_t particles = 0;
};

/// Hears messages up to the first that announces nothing; returns its kind.
ReaderMessage hearAnnouncements(InputFile const& file, RunningReader& reader, Announced& announced,
                                ParticleSet& particles) {
    std::vector<Column>& columns = announced.columns;
    for (;;) {
        ReaderMessage const kind = reader.next();
        switch (kind) {
        case ReaderMessage::note:
            particles.notes.push_back(fmt::format("{}: {}", file.path(), oneLine(reader.bytes)));
            break;
        case ReaderMessage::fact:
            takeFact(reader.bytes, particles, announced.particles);
            break;
        case ReaderMessage::column:
            columns.push_back(columnOf(file, reader.bytes, announced.rowBytes));
            announced.rowBytes += scalarBytes(columns.back().stored);
            break;
        case ReaderMessage::names:
            if (!columns.empty())
                columns.back().names = tableOf(reader.bytes);
            break;
        case ReaderMessage::absent: // for messages that list the columns; no name of it is used
            columns.push_back({reader.bytes, "", ScalarType::uint8, ScalarType::uint8, 0, true});
            break;
        default:
            return kind;
        }
    }
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
    if (!file.packing().empty() || !file.canBeReadAgain())
        file.fail("{} reads plain files only, not from {}; unpack it first", program.library,
                  file.packing().empty() ? "a pipe" : "packed ones");
    RunningReader reader(file, program, options.progress, wishesFor(names, options));
    reader.greet();
    Announced announced;
    ReaderMessage kind = hearAnnouncements(file, reader, announced, particles);
    if (options.findOnly)
        return;
    // What is derived stands behind what is read.
    std::vector<Column>& columns = announced.columns;
    std::stable_partition(columns.begin(), columns.end(),
                          [](Column const& column) { return !column.isDerived; });
    std::size_t const rowBytes = announced.rowBytes;
    std::vector<ColumnUse> const uses = chooseUses(file, columns, names, options, particles);
    for (ColumnUse const& use : uses)
        if (columns[use.column].isDerived)
            file.fail("{} sends no column {}, which it has", program.name,
                      pipeline::quoted(columns[use.column].name));
    for (ColumnUse const& use : uses)
        if (use.target == Target::type)
            particles.typeNames = columns[use.column].names;
    RowConverter converter(particles, columns, uses, options.summarise);
    converter.reserve(plausibleRows(file, announced.particles, 1));
    for (; kind == ReaderMessage::rows; kind = reader.next()) {
        std::size_t const rows = rowBytes > 0 ? reader.bytes.size() / rowBytes : 0;
        converter.append(reader.bytes.data(), rows, rowBytes, false);
        file.particles += rows;
    }
}

} // namespace pipeline
