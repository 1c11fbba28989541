#include "tool/interruptwatch.h"

#include "kelpa/host/consoleprogress.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace kelpatool {

InterruptWatch::InterruptWatch() {
    try {
        watcher = std::jthread([this](std::stop_token const& stop) { watch(stop); });
    } catch (std::system_error const&) {
        // Without a thread for it the scope ends when it does.
    }
}

void InterruptWatch::watch(std::stop_token const& stop) {
    constexpr std::chrono::milliseconds look{20};
    constexpr std::chrono::milliseconds patience{80};
    constexpr int interruptedExit = 130;
    std::unique_lock hold(mutex);
    auto const isOver = [&stop] { return stop.stop_requested(); };
    while (!Kelpa::InterruptScope::interrupted())
        if (ended.wait_for(hold, stop, look, isOver))
            return;
    if (ended.wait_for(hold, stop, patience, isOver))
        return;
    std::fputs("\nkelpa: interrupted\n", stderr);
    std::_Exit(interruptedExit);
}

} // namespace kelpatool
