// Words a build's progress for people, and notes signals.
#include "kelpa/host/consoleprogress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

namespace Kelpa {

namespace {

std::atomic<bool> wasInterrupted = false;
static_assert(std::atomic<bool>::is_always_lock_free); // or a signal handler must not touch it

// Ctrl-C, Ctrl-\, an orderly end, a terminal that was closed, and processor time that is used up.
constexpr int answered[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGXCPU};
struct sigaction formerActions[std::size(answered)];

void noteSignal(int) {
    wasInterrupted.store(true, std::memory_order_relaxed);
}

/// How many columns a line on stderr may fill without beginning another one.
std::size_t terminalColumns() {
    winsize size{};
    bool const isKnown = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size.ws_col - std::size_t{1} : std::string::npos;
}

} // namespace

std::string withCommas(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (auto at = static_cast<std::ptrdiff_t>(text.size()) - 3; at > 0; at -= 3)
        text.insert(static_cast<std::size_t>(at), ",");
    return text;
}

std::string durationText(double seconds) {
    char text[32];
    double const minutes = std::round(seconds / 60.0);
    if (seconds < 99.95)
        std::snprintf(text, sizeof text, "%.1f s", std::max(seconds, 0.0));
    else if (minutes < 120.0)
        std::snprintf(text, sizeof text, "%.0f min", minutes);
    else
        std::snprintf(text, sizeof text, "%.0f h %.0f min", std::floor(minutes / 60.0),
                      std::fmod(minutes, 60.0));
    return text;
}

InterruptScope::InterruptScope() {
    struct sigaction action {};
    action.sa_handler = noteSignal;
    // A second signal meets the default again: whoever insists is obeyed at once.
    action.sa_flags = static_cast<int>(SA_RESETHAND) | SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < std::size(answered); ++i) {
        sigaction(answered[i], nullptr, &formerActions[i]);
        if (formerActions[i].sa_handler != SIG_IGN) // as nohup and shells ask for
            sigaction(answered[i], &action, nullptr);
    }
}

InterruptScope::~InterruptScope() {
    for (std::size_t i = 0; i < std::size(answered); ++i)
        sigaction(answered[i], &formerActions[i], nullptr);
}

bool InterruptScope::interrupted() {
    return wasInterrupted.load(std::memory_order_relaxed);
}

std::int32_t ConsoleProgress::getAbort() {
    return isStopped.load(std::memory_order_relaxed) || InterruptScope::interrupted() ? 1 : 0;
}

void ConsoleProgress::info(int, int level, char const* format, ...) {
    Verbosity const needed =
        level > statisticsLevel ? Verbosity::everything : Verbosity::statistics;
    if (verbosity < needed)
        return;
    char line[1024];
    va_list values;
    va_start(values, format);
    std::vsnprintf(line, sizeof line - 1, format, values);
    va_end(values);
    std::size_t const length = std::strlen(line);
    if (length == 0 || line[length - 1] != '\n')
        std::strcpy(line + length, "\n");
    std::fputs(line, stderr);
}

ProgressLine::ProgressLine(std::string phaseName, Mode wanted, Remark remarkOf)
    : name(std::move(phaseName)), mode(wanted != Mode::automatic    ? wanted
                                       : isatty(STDERR_FILENO) != 0 ? Mode::rewritten
                                                                    : Mode::plain),
      remark(std::move(remarkOf)) {
    if (mode == Mode::none)
        return;
    try {
        ticker = std::thread([this] { tick(); });
    } catch (std::system_error const&) {
        // Without a thread for it there is no display.
    }
}

ProgressLine::~ProgressLine() {
    {
        std::lock_guard const hold(mutex);
        hasEnded = true;
    }
    ended.notify_all();
    if (ticker.joinable())
        ticker.join();
    if (hasShown && mode == Mode::rewritten)
        std::fputs("\r\033[K", stderr);
}

void ProgressLine::update(double fraction, std::uint64_t count) {
    fractionDone.store(fraction, std::memory_order_relaxed);
    countDone.store(count, std::memory_order_relaxed);
}

void ProgressLine::tick() {
    constexpr double patience = 0.5; // seconds
    std::unique_lock hold(mutex);
    while (!ended.wait_for(hold, std::chrono::milliseconds{100}, [this] { return hasEnded; })) {
        std::chrono::duration<double> const elapsed = std::chrono::steady_clock::now() - begin;
        if (elapsed.count() >= patience)
            show(elapsed.count());
    }
}

void ProgressLine::show(double seconds) {
    double const fraction = fractionDone.load(std::memory_order_relaxed);
    int const tenths = static_cast<int>(fraction * 10.0);
    if (mode == Mode::plain) {
        // Without a fraction, a sign of life now and then.
        constexpr double quietTime = 10.0; // seconds
        if (fraction >= 0.0 ? tenths <= tenthsShown : seconds < nextSign)
            return;
        nextSign = seconds + quietTime;
    }
    tenthsShown = tenths;
    hasShown = true;
    std::string const line = mode == Mode::rewritten
                                 ? "\r" + lineFor(seconds, terminalColumns()) + "\033[K"
                                 : lineFor(seconds, std::string::npos) + "\n";
    std::fputs(line.c_str(), stderr);
}

/// What is to be shown, as much as there are columns for.
std::string ProgressLine::lineFor(double seconds, std::size_t columns) const {
    double const fraction = fractionDone.load(std::memory_order_relaxed);
    std::uint64_t const count = countDone.load(std::memory_order_relaxed);
    enum Part { phase, bar, percent, particles, time, more, partCount };
    std::string parts[partCount];
    parts[phase] = name;
    parts[phase].resize(std::max<std::size_t>(name.size(), 6), ' ');
    if (fraction >= 0.0) {
        constexpr int barWidth = 12;
        for (int i = 0; i < barWidth; ++i)
            parts[bar] += i < static_cast<int>(fraction * barWidth) ? '#' : '-';
        parts[bar].insert(0, " ");
        char text[16];
        std::snprintf(text, sizeof text, " %3.0f %%", fraction * 100.0);
        parts[percent] = text;
    }
    if (count > 0)
        parts[particles] = "  " + withCommas(count) + " particles";
    constexpr double enough = 0.05; // of the work, to tell how long the rest takes
    parts[time] = fraction > enough ? "  " + durationText(seconds / fraction - seconds) + " left"
                                    : "  " + durationText(seconds);
    if (std::string const text = remark ? remark() : ""; !text.empty())
        parts[more] = "; " + text;

    constexpr Part leastUseful[] = {particles, bar, more, time, percent};
    auto const length = [&parts] {
        std::size_t sum = 0;
        for (std::string const& part : parts)
            sum += part.size();
        return sum;
    };
    for (Part const part : leastUseful)
        if (length() > columns)
            parts[part].clear();
    std::string line;
    for (std::string const& part : parts)
        line += part;
    return line.substr(0, columns);
}

} // namespace Kelpa
