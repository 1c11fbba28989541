// The command kelpa: turns what goes wrong into one line and an exit code.

#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/host/consoleprogress.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/progress.h"

#include "tool/commands/commands.h"
#include "tool/options/hints.h"
#include "tool/options/options.h"
#include "tool/process/interruptwatch.h"
#include "tool/process/standardstreams.h"

#include <fmt/format.h>

#include <csignal>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>

using namespace pipeline;
using namespace pipeline::tool;

namespace {

enum ExitCode {
    done = 0,
    failed = 1,
    wrongUsage = 2,
    unusableInput = 3,
    unwritableOutput = 4,
    interrupted = 130
};

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
    default:
        return wrongUsage;
    }
}

constexpr char const* outOfMemory = "out of memory; fewer particles or a smaller picture need less";

/// What the library says, without the names of its own parts.
char const* withoutNames(char const* text) {
    if (std::strstr(text, "Could not allocate memory") != nullptr)
        return outOfMemory;
    char const* const end = *text == '[' ? std::strstr(text, "] ") : nullptr;
    return end != nullptr ? end + 2 : text;
}

int complain(ExitCode code, char const* text) {
    say("kelpa: {}\n", text);
    return code;
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
    } catch (std::invalid_argument const& error) {
        return complain(wrongUsage, error.what());
    } catch (InputError const& error) {
        return complain(unusableInput, (error.what() + hintText(error.hint)).c_str());
    } catch (OutputError const& error) {
        return complain(unwritableOutput, error.what());
    } catch (Interrupted const&) {
        return complain(interrupted, "interrupted");
    } catch (Kelpa::ExceptionMsg const& error) {
        return complain(failed, withoutNames(error.what()));
    } catch (std::bad_alloc const&) {
        return complain(failed, outOfMemory);
    } catch (std::exception const& error) {
        return complain(failed, error.what());
    }
}
