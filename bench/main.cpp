// Measures builds, rays and memory: by Google Benchmark, or in one run with a peer.

#include "bench/benchmarks.h"
#include "bench/comparison.h"

#include <benchmark/benchmark.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

namespace kelpabench {

namespace {

constexpr char const* usage =
    "kelpa_bench [options]            builds and rays by Google Benchmark (--benchmark_... "
    "options)\n"
    "kelpa_bench --peers [options]    ours against a peer, in turn, and whether they agree\n"
    "kelpa_bench --fresh-builds [options]  builds, each in a process of its own: time and memory\n"
    "kelpa_bench --hash [options]     hashes of all hits of every scene\n"
    "kelpa_bench --schedules [options]  rays that differ with the threads of the build\n"
    "  --counts 1e5,1e6   spheres\n"
    "  --threads 1,2      of builds and rays (--hash: the first; 1)\n"
    "  --rays 65536       of each kind\n"
    "  --filter REGEX     only scenes with such a name, as in uniform/static/100000\n"
    "  --runs 5           --peers, --fresh-builds: runs of each, of which the median counts\n"
    "  --pictures         --peers: rays of pictures of 1280 x 720, and their shadow rays\n"
    "  --json FILE        --peers: write all runs\n";

enum class Mode { benchmarks, peers, freshBuilds, oneBuild, hash, schedules, help };

struct CommandLine {
    Mode mode = Mode::benchmarks;
    Settings settings;
    bool buildsOurs = true; ///< with `oneBuild`: ours, not the peer's
    std::vector<char*> forBenchmark;
};

int parseCount(std::string const& text) {
    double value = 0.0;
    auto const [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    bool const isWhole = failure == std::errc{} && end == text.data() + text.size() &&
                         value >= 1.0 && value <= 1e9 && value == std::floor(value);
    if (!isWhole)
        throw std::invalid_argument("\"" + text + "\" is not a count from 1 to 1e9");
    return static_cast<int>(value);
}

std::vector<int> parseCounts(std::string const& list) {
    std::vector<int> counts;
    std::istringstream parts(list);
    for (std::string part; std::getline(parts, part, ',');)
        counts.push_back(parseCount(part));
    if (counts.empty())
        throw std::invalid_argument("an empty list of counts");
    return counts;
}

CommandLine parse(int argc, char** argv) {
    CommandLine line;
    Settings& settings = line.settings;
    line.forBenchmark.push_back(argv[0]);
    int next = 1;
    auto const value = [&]() -> std::string {
        if (next == argc)
            throw std::invalid_argument(std::string(argv[next - 1]) + " needs a value");
        return argv[next++];
    };
    while (next < argc) {
        std::string_view const option = argv[next++];
        if (option == "--peers")
            line.mode = Mode::peers;
        else if (option == "--fresh-builds")
            line.mode = Mode::freshBuilds;
        else if (option == "--one-build") { // for --fresh-builds
            line.mode = Mode::oneBuild;
            line.buildsOurs = value() == "ours";
        } else if (option == "--hash")
            line.mode = Mode::hash;
        else if (option == "--schedules")
            line.mode = Mode::schedules;
        else if (option == "--help")
            line.mode = Mode::help;
        else if (option == "--counts")
            settings.counts = parseCounts(value());
        else if (option == "--threads")
            settings.threads = parseCounts(value());
        else if (option == "--rays")
            settings.rays = parseCount(value());
        else if (option == "--runs")
            settings.runs = parseCount(value());
        else if (option == "--filter")
            settings.filter = value();
        else if (option == "--pictures")
            settings.pictures = true;
        else if (option == "--json")
            settings.json = value();
        else if (option.starts_with("--benchmark_"))
            line.forBenchmark.push_back(argv[next - 1]);
        else
            throw std::invalid_argument("unknown option " + std::string(option));
    }
    return line;
}

void addDefaults(Mode mode, Settings& settings) {
    if (settings.counts.empty())
        settings.counts = mode == Mode::hash || mode == Mode::schedules ? std::vector{20000}
                          : mode == Mode::peers || mode == Mode::freshBuilds
                              ? std::vector{100000, 1000000}
                              : std::vector{10000, 100000, 1000000};
    if (!settings.threads.empty())
        return;
    settings.threads = {1};
    auto const processors = static_cast<int>(std::thread::hardware_concurrency());
    if (processors > 1 && mode != Mode::hash)
        settings.threads.push_back(processors);
}

void runBenchmarks(CommandLine& line) {
    registerBenchmarks(line.settings);
    auto count = static_cast<int>(line.forBenchmark.size());
    benchmark::Initialize(&count, line.forBenchmark.data());
    if (benchmark::ReportUnrecognizedArguments(count, line.forBenchmark.data()))
        throw std::invalid_argument("Google Benchmark does not know an option");
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}

void run(CommandLine& line) {
    addDefaults(line.mode, line.settings);
    switch (line.mode) {
    case Mode::benchmarks:
        return runBenchmarks(line);
    case Mode::peers:
        return comparePeers(line.settings);
    case Mode::freshBuilds:
        return compareFreshBuilds(line.settings);
    case Mode::oneBuild:
        return printOneBuild(line.settings, line.buildsOurs);
    case Mode::hash:
        return printHashes(line.settings);
    case Mode::schedules:
        return printSchedules(line.settings);
    case Mode::help:
        std::fputs(usage, stdout);
        return;
    }
}

} // namespace

} // namespace kelpabench

int main(int argc, char** argv) {
    try {
        kelpabench::CommandLine line = kelpabench::parse(argc, argv);
        kelpabench::run(line);
        return 0;
    } catch (std::exception const& failure) {
        std::fprintf(stderr, "kelpa_bench: %s; see kelpa_bench --help\n", failure.what());
        return 2;
    }
}
