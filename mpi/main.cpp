// The program kelpa-mpi: kelpa render by many processes, which tell as one.

#include "kelpa/foundation/platform.h"
#include "kelpa/host/consoleprogress.h"

#include "mpi/mpiranks.h"
#include "tool/commands/commands.h"
#include "tool/options/options.h"
#include "tool/process/interruptwatch.h"
#include "tool/process/standardstreams.h"
#include "tool/report/failures.h"
#include "tool/version.h"

#include <fcntl.h>
#include <mpi.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>

using namespace pipeline;
using namespace pipeline::tool;

namespace {

constexpr char const* help =
    "Usage: mpirun -n PROCESSES kelpa-mpi render FILE... -o PICTURE [OPTION...]\n\n"
    "Renders pictures as kelpa render does, bit for bit, by several processes on one\n"
    "machine or on many: the trees over the particles and the work are shared out.\n"
    "kelpa-mpi render --help tells the options.\n";

/// MPI from its beginning to its end.
class MpiScope {
  public:
    MpiScope(int& argc, char**& argv) {
        int granted = 0; // threads of ours never call it
        MPI_Init_thread(&argc, &argv, MPI_THREAD_FUNNELED, &granted);
    }
    ~MpiScope() { MPI_Finalize(); }
    MpiScope(MpiScope const&) = delete;
    MpiScope& operator=(MpiScope const&) = delete;
};

/// Keeps a process silent, which does and notes what the first one does and notes; what ended it
/// can still be told.
class Silence {
  public:
    explicit Silence(bool isSilent) {
        if (!isSilent)
            return;
        kept = dup(STDERR_FILENO);
        int const nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDOUT_FILENO);
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }
    void end() const {
        if (kept >= 0)
            dup2(kept, STDERR_FILENO);
    }

  private:
    int kept = -1;
};

/// One thread for each processor, shared among the processes here unless each was given its own.
int threadsOfOne(int processesHere) {
    int const granted = Kelpa::getNumProcessors();
    bool const isBound = granted < static_cast<int>(std::thread::hardware_concurrency());
    return isBound ? granted : std::max(1, granted / processesHere);
}

int render(int argc, char** argv, mpi::MpiRanks& ranks) {
    int exitCode = done;
    auto options = parseOptions(argc, argv, exitCode);
    if (!options)
        return exitCode;
    if (!options->film.plan.empty())
        throw UsageError("a plan is made by one process: kelpa render --plan");
    if (!options->tree.keep.cache.empty())
        throw UsageError("--cache is for one process: leave it out");
    options->tree.share = {ranks.rank(), ranks.ranks()};
    // Hits bring home what most pictures need, but neither further columns nor ways.
    options->tree.keepsAll = options->image.velocity || !options->scene.layers.empty();
    if (!options->tree.keepsAll)
        options->scene.ranks = &ranks;
    int const processesHere = ranks.ranksHere();
    if (options->run.threads == 0)
        options->run.threads = threadsOfOne(processesHere);
    return runRender(*options, ranks);
}

/// What the command line asks for, if it is not a picture.
int answerOthers(int argc, char** argv) {
    std::string const asked = argc > 1 ? argv[1] : "";
    if (asked == "--version") {
        std::printf("kelpa-mpi %s\n", version);
        return done;
    }
    bool const asksForHelp = asked == "--help" || asked == "-h";
    std::fputs(help, asksForHelp ? stdout : stderr);
    return asksForHelp ? done : wrongUsage;
}

/// Ends all processes alike. Of those that failed the first one tells.
int finish(Failure const& failure, mpi::MpiRanks& ranks, Silence const& silence) {
    bool const hasFailed = !failure.text.empty();
    ranks.end(hasFailed);
    int const speaker = ranks.least(hasFailed ? ranks.rank() : ranks.ranks());
    if (hasFailed && ranks.rank() == speaker) {
        silence.end();
        char host[256] = {};
        gethostname(host, sizeof host - 1);
        std::string const where =
            ranks.rank() == 0 ? "" : fmt::format("rank {} on {}: ", ranks.rank(), host);
        say("kelpa-mpi: {}{}\n", where, failure.text);
    }
    return ranks.greatest(failure.code);
}

} // namespace

int main(int argc, char** argv) {
    secureStandardStreams();
    // A file that may grow no further is reported like a full disk, not by a signal.
    std::signal(SIGXFSZ, SIG_IGN);
    MpiScope const scope(argc, argv);
    mpi::MpiRanks ranks;
    Silence const silence(ranks.rank() != 0);
    Kelpa::InterruptScope const interrupts;
    Failure failure{done, ""};
    try {
        InterruptWatch const watch;
        bool const isRender = argc > 1 && std::string(argv[1]) == "render";
        failure.code =
            static_cast<ExitCode>(isRender ? render(argc, argv, ranks) : answerOthers(argc, argv));
    } catch (FailedElsewhere const&) {
        // The one that failed tells.
    } catch (...) {
        failure = failureOf(std::current_exception());
    }
    return finish(failure, ranks, silence);
}
