// Tables: both libraries build the same scenes and answer the same rays, in one run.
#pragma once

#include "bench/kernels.h"

#include <regex>
#include <string>
#include <vector>

namespace kelpabench {

/// What to measure.
struct Settings {
    std::vector<int> counts;  ///< spheres
    std::vector<int> threads; ///< of builds and rays
    int runs = 5;
    int rays = 65536; ///< of each kind
    std::regex filter{""};
    bool pictures = false; ///< compare by the rays of pictures
    std::string json;      ///< where the comparison is written to; empty: nowhere

    /// The wanted scenes, by growing count; `filter` is looked for in their names.
    std::vector<SceneRecipe> recipes() const;
};

/// The middle value, of an even number the mean of the middle two.
double median(std::vector<double> values);

/// Traces on `threads` threads that take pieces of the rays in turn.
void traceOnThreads(int threads, Kernel const& kernel, Form form, std::size_t method,
                    std::span<Ray const> rays, std::span<Found> found);

/// Prints a table of ours and the peer's builds, rays and memory, and writes it to
/// `settings.json`. Throws `std::runtime_error` when that cannot be written.
void comparePeers(Settings const& settings);

/// Prints what builds of every scene cost in a process of their own: ours, and the peer's.
void compareFreshBuilds(Settings const& settings);

/// Builds the first scene on the first number of threads, here and now, and prints what it cost,
/// one figure a line: what `compareFreshBuilds` starts processes for.
void printOneBuild(Settings const& settings, bool isOurs);

/// Prints hashes of all hit parameters of every scene, with packed leaves and without, by the code
/// for each kind of processor that this one can run, asked singly and in lists.
///
/// Trees are built on one thread and asked on the first number of threads: a scene's hashes are the
/// same from every compiler, on any number of threads, packed or not.
void printHashes(Settings const& settings);

/// Prints for every scene how many rays find something else in trees that were built on the last
/// number of threads, `settings.runs` times, than in the one that was built on one.
void printSchedules(Settings const& settings);

} // namespace kelpabench
