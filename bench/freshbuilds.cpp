// Measures builds as a library's user meets them: each in a process of its own, which has not yet
// touched the memory that it will need.

#include "bench/comparison.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

namespace kelpabench {

namespace {

/// What a build in a fresh process took.
struct BuildCost {
    double wall;     ///< seconds
    double user;     ///< seconds, over all threads
    double system;   ///< see `user`
    double faults;   ///< pages that were not there when they were touched
    double peak;     ///< bytes a sphere at the worst, without the host's arrays
    double resident; ///< bytes a sphere afterwards, likewise
};

constexpr double BuildCost::*figures[] = {&BuildCost::wall,   &BuildCost::user,
                                          &BuildCost::system, &BuildCost::faults,
                                          &BuildCost::peak,   &BuildCost::resident};

double seconds(timeval const& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
}

/// Bytes that the system tells of this process under a name; 0 when it does not tell.
double ownMemory(std::string const& name) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        double kilobytes = 0.0;
        if (word == name + ":" && status >> kilobytes)
            return 1024.0 * kilobytes;
        status.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return 0.0;
}

void forgetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

BuildCost measure(SceneRecipe const& recipe, bool isOurs, int threads) {
    Scene const scene = makeScene(recipe);
    std::unique_ptr<Kernel> const kernel = isOurs ? makeOurs(scene) : makePeer(scene);
    forgetPeak();
    double const before = ownMemory("VmRSS");
    rusage first{};
    rusage last{};
    getrusage(RUSAGE_SELF, &first);
    double const wall = kernel->build(threads);
    getrusage(RUSAGE_SELF, &last);
    double const n = recipe.count;
    return {wall,
            seconds(last.ru_utime) - seconds(first.ru_utime),
            seconds(last.ru_stime) - seconds(first.ru_stime),
            static_cast<double>(last.ru_minflt - first.ru_minflt),
            (ownMemory("VmHWM") - before) / n,
            (ownMemory("VmRSS") - before) / n};
}

/// Has a new process of this program measure one build.
BuildCost measureApart(SceneRecipe const& recipe, bool isOurs, int threads) {
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) < 0)
        throw std::runtime_error("cannot find this program in /proc");
    std::string const command = "'" + std::string(self) + "' --one-build " +
                                (isOurs ? "ours" : "peer") + " --filter '^" + recipe.name() +
                                "$' --counts " + std::to_string(recipe.count) + " --threads " +
                                std::to_string(threads);
    std::FILE* const output = popen(command.c_str(), "r");
    if (output == nullptr)
        throw std::runtime_error("cannot start " + command);
    BuildCost cost{};
    bool isRead = true;
    for (auto const figure : figures)
        isRead = std::fscanf(output, "%lf", &(cost.*figure)) == 1 && isRead;
    if (pclose(output) != 0 || !isRead)
        throw std::runtime_error("no figures from " + command);
    return cost;
}

double medianOf(std::vector<BuildCost> const& runs, double BuildCost::*figure) {
    std::vector<double> values;
    for (BuildCost const& run : runs)
        values.push_back(run.*figure);
    return median(std::move(values));
}

} // namespace

void printOneBuild(Settings const& settings, bool isOurs) {
    std::vector<SceneRecipe> const recipes = settings.recipes();
    if (recipes.empty())
        throw std::invalid_argument("no scene has such a name");
    BuildCost const cost = measure(recipes.front(), isOurs, settings.threads.front());
    for (auto const figure : figures)
        std::printf("%.17g\n", cost.*figure);
}

void compareFreshBuilds(Settings const& settings) {
    std::printf("%s; medians of %d processes, in turn; bytes a sphere without the host's arrays\n",
                peerName().c_str(), settings.runs);
    std::printf("%-24s %2s  %-4s %8s %8s %8s %9s %7s %7s\n", "scene", "th", "", "wall s", "user s",
                "system s", "faults", "peak B", "after B");
    for (SceneRecipe const& recipe : settings.recipes())
        for (int const threads : settings.threads) {
            std::vector<BuildCost> runs[2];
            for (int run = 0; run < settings.runs; ++run)
                for (int side = 0; side < (hasPeer ? 2 : 1); ++side)
                    runs[side].push_back(measureApart(recipe, side == 0, threads));
            for (std::vector<BuildCost>& side : runs) {
                if (side.empty())
                    continue;
                auto const middle = [&side](double BuildCost::*figure) {
                    return medianOf(side, figure);
                };
                std::printf("%-24s %2d  %-4s %8.3f %8.3f %8.3f %9.0f %7.1f %7.1f\n",
                            recipe.name().c_str(), threads, &side == runs ? "ours" : "peer",
                            middle(&BuildCost::wall), middle(&BuildCost::user),
                            middle(&BuildCost::system), middle(&BuildCost::faults),
                            middle(&BuildCost::peak), middle(&BuildCost::resident));
                std::fflush(stdout);
            }
        }
}

} // namespace kelpabench
