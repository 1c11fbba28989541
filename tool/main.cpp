// The command kelpa: turns what goes wrong into one line and an exit code.

#include "kelpa/host/consoleprogress.h"

#include "tool/commands/commands.h"
#include "tool/options/options.h"
#include "tool/process/interruptwatch.h"
#include "tool/process/standardstreams.h"
#include "tool/report/failures.h"

#include <csignal>
#include <exception>

using namespace pipeline;
using namespace pipeline::tool;

namespace {

int runCommand(Options const& options) {
    switch (options.command) {
    case Options::Command::render:
        return runRender(options);
    case Options::Command::info:
        return runInfo(options);
    case Options::Command::convert:
        return runConvert(options);
    case Options::Command::generate:
        return runGenerate(options);
    case Options::Command::bench:
        return runBench(options);
    case Options::Command::join:
        return runJoin(options);
    case Options::Command::view:
        return runView(options);
    default:
        return wrongUsage;
    }
}

} // namespace

int main(int argc, char** argv) {
    secureStandardStreams();
    // A file that may grow no further is reported like a full disk, not by a signal.
    std::signal(SIGXFSZ, SIG_IGN);
    Kelpa::InterruptScope const interrupts;
    try {
        InterruptWatch const watch;
        int exitCode = done;
        auto const options = parseOptions(argc, argv, exitCode);
        return options ? runCommand(*options) : exitCode;
    } catch (...) {
        Failure const failure = failureOf(std::current_exception());
        say("kelpa: {}\n", failure.text);
        return failure.code;
    }
}
