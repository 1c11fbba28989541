// Measures builds, rays and memory. `kelpa_bench --peers` compares with the peer in one run;
// without it the program is an ordinary Google Benchmark.

#include "bench/kernels.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace kelpabench {

namespace {

struct Settings {
    bool comparesPeers = false;
    bool hashes = false;
    std::vector<int> counts = {100000, 1000000};
    std::vector<int> threads = {
        1, static_cast<int>(std::max(std::thread::hardware_concurrency(), 1U))};
    int runs = 5;
    std::string scenes = "uniform,clustered,slab";
    std::string json;
};

struct RaySet {
    char const* name;
    std::vector<Ray> rays;
};

std::vector<RaySet> raySets(Scene const& scene) {
    constexpr int side = 512;
    std::vector<RaySet> sets;
    sets.push_back({"camera", cameraRays(side)});
    sets.push_back({"bounced", bouncedRays(scene, sets[0].rays)});
    sets.push_back({"random", randomRays(side * side / 4)});
    return sets;
}

double secondsOf(std::function<void()> const& work) {
    auto const begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double medianOf(std::vector<double> values) {
    auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

using Trace = void (Kernel::*)(std::span<Ray const>, std::span<Found>);

/// Traces on several threads, each with a run of the rays of its own.
void traceOn(int threads, Kernel& kernel, Trace trace, std::span<Ray const> rays,
             std::span<Found> found) {
    std::size_t const share = (rays.size() / static_cast<std::size_t>(threads) + 64) / 64 * 64;
    std::vector<std::jthread> helpers;
    for (std::size_t begin = share; begin < rays.size(); begin += share)
        helpers.emplace_back([=, &kernel] {
            std::size_t const count = std::min(share, rays.size() - begin);
            (kernel.*trace)(rays.subspan(begin, count), found.subspan(begin, count));
        });
    (kernel.*trace)(rays.first(std::min(share, rays.size())), found);
}

/// Rays on which two kernels differ by more than rounding explains.
std::size_t differences(std::span<Found const> a, std::span<Found const> b) {
    constexpr float tolerance = 1e-3F;
    std::size_t count = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i] && !(std::fabs(a[i] - b[i]) <= tolerance * std::max(a[i], 0.01F)))
            ++count;
    return count;
}

/// One line of the comparison.
struct Line {
    std::string scene;
    int count;
    int threads;
    std::string what;
    double ours;
    double peer;  ///< 0: no peer
    double ratio; ///< above 1: ours is better
    std::size_t differing;
};

void print(Line const& line) {
    std::printf("%-24s %9d %2d  %-22s %9.3f %9.3f  %5.2f", line.scene.c_str(), line.count,
                line.threads, line.what.c_str(), line.ours, line.peer, line.ratio);
    if (line.differing > 0)
        std::printf("  %zu hits differ", line.differing);
    std::printf("\n");
    std::fflush(stdout);
}

class Comparison {
  public:
    Comparison(Settings const& wanted) : settings(wanted), ours(makeOurs()), peer(makePeer()) {}

    void run() {
        std::printf("ours against %s; medians of %d runs in turn; ratio above 1: ours is better\n",
                    peerName(), settings.runs);
        std::printf("%-24s %9s %2s  %-22s %9s %9s  %5s\n", "scene", "spheres", "th", "what", "ours",
                    "peer", "ratio");
        std::istringstream kinds(settings.scenes);
        for (std::string kind; std::getline(kinds, kind, ',');)
            for (Motion const motion : {Motion::none, Motion::ownDirections, Motion::drift})
                for (int const count : settings.counts)
                    if (motion == Motion::none || kind == "uniform")
                        compare(makeScene(kind, count, motion));
        if (!settings.json.empty())
            writeJson();
    }

  private:
    void compare(Scene const& scene) {
        std::vector<RaySet> const sets = raySets(scene);
        for (int const threads : settings.threads) {
            // Every figure is taken in turn, so that a change of the machine's speed meets both.
            addTimes(scene, threads, "build, s", false, [&](Kernel& kernel) {
                return secondsOf([&] { kernel.build(scene, threads); });
            });
            for (RaySet const& set : sets) {
                addRays(scene, threads, set, "single", &Kernel::traceSingle);
                addRays(scene, threads, set, "lists", &Kernel::traceLists);
            }
        }
        double const n = static_cast<double>(scene.positions.size());
        double const bytes = static_cast<double>(ours->memory()) / n;
        double const peerBytes = peer != nullptr ? static_cast<double>(peer->memory()) / n : 0.0;
        add({scene.name, static_cast<int>(n), 1, "bytes a sphere", bytes, peerBytes,
             peerBytes / bytes, 0});
    }

    void addRays(Scene const& scene, int threads, RaySet const& set, std::string const& form,
                 Trace trace) {
        std::vector<Found> found(set.rays.size());
        std::vector<Found> foundByPeer(set.rays.size());
        addTimes(scene, threads, std::string(set.name) + " " + form + ", M/s", true,
                 [&](Kernel& kernel) {
                     std::span<Found> const result = &kernel == ours.get() ? found : foundByPeer;
                     double const seconds =
                         secondsOf([&] { traceOn(threads, kernel, trace, set.rays, result); });
                     return static_cast<double>(set.rays.size()) / seconds * 1e-6;
                 });
        if (peer != nullptr)
            lines.back().differing = differences(found, foundByPeer);
        print(lines.back());
    }

    void addTimes(Scene const& scene, int threads, std::string const& what, bool moreIsBetter,
                  std::function<double(Kernel&)> const& measure) {
        std::vector<double> mine;
        std::vector<double> theirs;
        for (int run = 0; run < settings.runs; ++run) {
            mine.push_back(measure(*ours));
            if (peer != nullptr)
                theirs.push_back(measure(*peer));
        }
        double const a = medianOf(mine);
        double const b = theirs.empty() ? 0.0 : medianOf(theirs);
        Line const line{scene.name,
                        static_cast<int>(scene.positions.size()),
                        threads,
                        what,
                        a,
                        b,
                        moreIsBetter ? a / b : b / a,
                        0};
        if (moreIsBetter)
            lines.push_back(line); // printed with its differences
        else
            add(line);
    }

    void add(Line const& line) {
        lines.push_back(line);
        print(line);
    }

    void writeJson() const {
        std::FILE* const file = std::fopen(settings.json.c_str(), "w");
        if (file == nullptr) {
            std::perror(settings.json.c_str());
            return;
        }
        std::fprintf(file, "{\"peer\": \"%s\", \"runs\": %d, \"lines\": [", peerName(),
                     settings.runs);
        for (std::size_t i = 0; i < lines.size(); ++i)
            std::fprintf(
                file,
                "%s\n  {\"scene\": \"%s\", \"spheres\": %d, \"threads\": %d, \"what\": \"%s\", "
                "\"ours\": %.6g, \"peer\": %.6g, \"differing\": %zu}",
                i > 0 ? "," : "", lines[i].scene.c_str(), lines[i].count, lines[i].threads,
                lines[i].what.c_str(), lines[i].ours, lines[i].peer, lines[i].differing);
        std::fprintf(file, "\n]}\n");
        std::fclose(file);
    }

    Settings settings;
    std::unique_ptr<Kernel> ours;
    std::unique_ptr<Kernel> peer;
    std::vector<Line> lines;
};

/// Prints a hash of all hit parameters of every scene, built on one thread: the same from every
/// compiler, with and without packed leaves.
void printHashes() {
    constexpr int count = 20000;
    for (char const* kind : {"uniform", "clustered", "slab"})
        for (Motion const motion : {Motion::none, Motion::ownDirections, Motion::drift})
            for (bool const packed : {true, false}) {
                Scene const scene = makeScene(kind, count, motion);
                std::unique_ptr<Kernel> const ours = makeOurs(packed);
                ours->build(scene, 1);
                std::uint64_t hash = 0xCBF29CE484222325U; // FNV-1a
                for (RaySet const& set : raySets(scene))
                    for (Trace const trace : {&Kernel::traceSingle, &Kernel::traceLists}) {
                        std::vector<Found> found(set.rays.size());
                        ((*ours).*trace)(set.rays, found);
                        for (Found const t : found) {
                            std::uint32_t bits = 0;
                            std::memcpy(&bits, &t, sizeof bits);
                            hash = (hash ^ bits) * 0x100000001B3U;
                        }
                    }
                std::printf("%s %s %016llx\n", scene.name.c_str(), packed ? "packed" : "plain",
                            static_cast<unsigned long long>(hash));
            }
}

void registerBenchmarks() {
    for (Motion const motion : {Motion::none, Motion::ownDirections})
        for (int const count : {10000, 100000, 1000000}) {
            std::string const suffix =
                std::string(motion == Motion::none ? "still/" : "moving/") + std::to_string(count);
            for (int const threads :
                 {1, static_cast<int>(std::max(std::thread::hardware_concurrency(), 1U))})
                benchmark::RegisterBenchmark(
                    ("build/" + suffix + "/threads:" + std::to_string(threads)).c_str(),
                    [=](benchmark::State& state) {
                        Scene const scene = makeScene("uniform", count, motion);
                        auto const ours = makeOurs();
                        for (auto _ : state)
                            ours->build(scene, threads);
                        state.SetItemsProcessed(state.iterations() * count);
                    })
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime();
            for (int set = 0; set < 3; ++set)
                benchmark::RegisterBenchmark(
                    (std::string("rays/") +
                     (set == 0   ? "camera/"
                      : set == 1 ? "bounced/"
                                 : "random/") +
                     suffix)
                        .c_str(),
                    [=](benchmark::State& state) {
                        Scene const scene = makeScene("uniform", count, motion);
                        auto const ours = makeOurs();
                        ours->build(scene, 1);
                        std::vector<Ray> const rays =
                            raySets(scene)[static_cast<std::size_t>(set)].rays;
                        std::vector<Found> found(rays.size());
                        for (auto _ : state)
                            ours->traceSingle(rays, found);
                        state.SetItemsProcessed(state.iterations() *
                                                static_cast<std::int64_t>(rays.size()));
                    })
                    ->Unit(benchmark::kMillisecond);
        }
}

std::vector<int> numbersOf(std::string const& list) {
    std::vector<int> numbers;
    std::istringstream text(list);
    for (std::string number; std::getline(text, number, ',');)
        numbers.push_back(static_cast<int>(std::strtod(number.c_str(), nullptr)));
    return numbers;
}

Settings parseSettings(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        std::string const option = argv[i];
        bool const hasValue = i + 1 < argc;
        if (option == "--peers")
            settings.comparesPeers = true;
        else if (option == "--hash")
            settings.hashes = true;
        else if (option == "--counts" && hasValue)
            settings.counts = numbersOf(argv[++i]);
        else if (option == "--threads" && hasValue)
            settings.threads = numbersOf(argv[++i]);
        else if (option == "--runs" && hasValue)
            settings.runs = std::max(std::atoi(argv[++i]), 1);
        else if (option == "--scenes" && hasValue)
            settings.scenes = argv[++i];
        else if (option == "--json" && hasValue)
            settings.json = argv[++i];
    }
    return settings;
}

} // namespace

} // namespace kelpabench

int main(int argc, char** argv) {
    auto const settings = kelpabench::parseSettings(argc, argv);
    if (settings.hashes) {
        kelpabench::printHashes();
    } else if (settings.comparesPeers) {
        kelpabench::Comparison(settings).run();
    } else {
        kelpabench::registerBenchmarks();
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
    }
    return 0;
}
