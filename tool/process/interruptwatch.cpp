// A thread that waits for signals and ends what does not end by itself.
#include "tool/process/interruptwatch.h"

#include "kelpa/host/consoleprogress.h"

#include "pipeline/files/outputfile.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace pipeline::tool {

namespace {

constexpr std::chrono::milliseconds look{20};
constexpr std::chrono::milliseconds patience{80};
constexpr int interruptedExit = 130;

/// Does not return unless an output file exists. Whoever wants to make one from then on waits for
/// ever, which is not long.
void endUnlessWriting() {
    OutputFile::ifNoneExists([] {
        std::fputs("\nkelpa: interrupted\n", stderr);
        std::_Exit(interruptedExit);
    });
}

} // namespace

InterruptWatch::InterruptWatch() {
    try {
        watcher = std::jthread([this](std::stop_token const& stop) { watch(stop); });
    } catch (std::system_error const&) {
        // Without a thread for it the scope ends when it does.
    }
}

void InterruptWatch::watch(std::stop_token const& stop) {
    std::unique_lock guard(mutex);
    auto const isOver = [&stop] { return stop.stop_requested(); };
    while (!Kelpa::InterruptScope::interrupted())
        if (ended.wait_for(guard, stop, look, isOver))
            return;
    while (!ended.wait_for(guard, stop, patience, isOver))
        endUnlessWriting();
}

} // namespace pipeline::tool
