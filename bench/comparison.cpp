// Measures in turns, so that both libraries meet the same machine, and prints tables.
#include "bench/comparison.h"

#include "kelpa/host/pieces.h"
#include "kelpa/spheretree/kernelvariant.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <stdexcept>

namespace kelpabench {

std::vector<SceneRecipe> Settings::recipes() const {
    std::vector<SceneRecipe> wanted;
    for (int const count : counts)
        for (Cloud const cloud : allClouds)
            for (Motion const motion : allMotions) {
                SceneRecipe const recipe{cloud, motion, count};
                if (std::regex_search(recipe.name(), filter))
                    wanted.push_back(recipe);
            }
    return wanted;
}

void traceOnThreads(int threads, Kernel const& kernel, Form form, std::size_t method,
                    std::span<Ray const> rays, std::span<Found> found) {
    constexpr std::size_t pieceLength = 16 * listLength;
    Kelpa::doPieces((rays.size() + pieceLength - 1) / pieceLength, threads,
                    [&](std::size_t piece, Kelpa::GoOn const&) {
                        std::size_t const begin = piece * pieceLength;
                        std::size_t const count = std::min(pieceLength, rays.size() - begin);
                        kernel.trace(form, method, rays.subspan(begin, count),
                                     found.subspan(begin, count));
                    });
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    std::size_t const middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : 0.5 * (values[middle - 1] + values[middle]);
}

namespace {

/// One measurement: what our kernel and the peer did in turn.
struct Row {
    std::string scene;
    int threads;
    std::string what;
    bool moreIsBetter;
    std::vector<double> ours;
    std::vector<double> peers; ///< empty without a peer
    std::string peerMethod;
    std::size_t differing = 0; ///< rays on which the two do not agree

    /// How many times better ours is.
    double ratio() const {
        return moreIsBetter ? median(ours) / median(peers) : median(peers) / median(ours);
    }
};

void print(Row const& row) {
    std::printf("%-24s %2d  %-36s %9.3f", row.scene.c_str(), row.threads, row.what.c_str(),
                median(row.ours));
    if (!row.peers.empty())
        std::printf(" %9.3f %6.2f", median(row.peers), row.ratio());
    if (!row.peerMethod.empty())
        std::printf("  %zu differ, peer by %s", row.differing, row.peerMethod.c_str());
    std::printf("\n");
    std::fflush(stdout);
}

/// Whether two kernels answer a ray alike. Both compute in single precision, and a
/// ray that grazes a sphere may hit it or not.
bool agree(Found const& ours, Found const& peers) {
    constexpr double tolerance = 2e-5; // of a scene that is 1 wide
    if (!ours.isHit() || !peers.isHit())
        return ours.isHit() == peers.isHit();
    return std::fabs(ours.t - peers.t) <= tolerance;
}

class Comparison {
  public:
    Comparison(Settings const& wanted, SceneRecipe const& recipe)
        : settings(wanted), scene(makeScene(recipe)),
          sets(wanted.pictures ? pictureSets(scene, wanted.rays) : raySets(scene, wanted.rays)),
          ours(makeOurs(scene)), peer(makePeer(scene)) {}

    std::vector<Row> run() {
        for (int const threads : settings.threads) {
            Row builds = newRow(threads, "build, s", false);
            measure(builds, [threads](Kernel& kernel) { return kernel.build(threads); });
            add(std::move(builds));
            for (RaySet const& set : sets)
                for (Form const form : allForms)
                    if (!set.rays.empty())
                        addRays(threads, set, form);
        }
        addMemory();
        return std::move(rows);
    }

  private:
    Row newRow(int threads, std::string const& what, bool moreIsBetter) const {
        return {scene.recipe.name(), threads, what, moreIsBetter, {}, {}, {}};
    }

    void add(Row row) {
        print(row);
        rows.push_back(std::move(row));
    }

    /// Takes ours and the peer's in turn, so that a change of the machine's speed meets both.
    void measure(Row& row, std::function<double(Kernel&)> const& once) {
        for (int run = 0; run < settings.runs; ++run) {
            row.ours.push_back(once(*ours));
            if (peer != nullptr)
                row.peers.push_back(once(*peer));
        }
    }

    void addRays(int threads, RaySet const& set, Form form) {
        std::vector<Found> found(set.rays.size());
        std::vector<Found> foundByPeer(set.rays.size());
        auto const rate = [&](Kernel const& kernel, std::size_t method) {
            std::span<Found> const results = &kernel == ours.get() ? found : foundByPeer;
            auto const begin = std::chrono::steady_clock::now();
            traceOnThreads(threads, kernel, form, method, set.rays, results);
            std::chrono::duration<double> const passed = std::chrono::steady_clock::now() - begin;
            return 1e-6 * static_cast<double>(set.rays.size()) / passed.count();
        };
        // Ours has one method per form; the peer's best is found beforehand.
        std::size_t method = 0;
        if (peer != nullptr)
            method = fastest(*peer, form, rate);

        constexpr char const* formNames[] = {" single, M/s", " lists, M/s", " occluded, M/s"};
        Row row = newRow(threads, set.name + formNames[static_cast<int>(form)], true);
        measure(row,
                [&](Kernel& kernel) { return rate(kernel, &kernel == peer.get() ? method : 0); });
        if (peer != nullptr) {
            row.peerMethod = peer->methods(form)[method];
            for (std::size_t i = 0; i < found.size(); ++i)
                row.differing += agree(found[i], foundByPeer[i]) ? 0 : 1;
        }
        add(std::move(row));
    }

    /// The method with the best of three runs each.
    template <class Rate>
    static std::size_t fastest(Kernel const& kernel, Form form, Rate const& rate) {
        std::size_t best = 0;
        double bestRate = 0.0;
        std::size_t const count = kernel.methods(form).size();
        if (count == 1)
            return 0;
        for (int run = 0; run < 3; ++run)
            for (std::size_t method = 0; method < count; ++method) {
                double const reached = rate(kernel, method);
                if (reached > bestRate) {
                    best = method;
                    bestRate = reached;
                }
            }
        return best;
    }

    void addMemory() {
        auto const perSphere = [this](std::uint64_t bytes) {
            return static_cast<double>(bytes) / static_cast<double>(scene.recipe.count);
        };
        for (bool const withCopies : {false, true}) {
            Row row = newRow(settings.threads.back(),
                             withCopies ? "bytes with copies" : "bytes a sphere", false);
            auto const bytes = [&](Kernel& kernel) {
                Memory const memory = kernel.memory();
                return perSphere(memory.tree + (withCopies ? memory.copies : 0));
            };
            row.ours.push_back(bytes(*ours));
            if (peer != nullptr)
                row.peers.push_back(bytes(*peer));
            add(std::move(row));
        }
    }

    Settings const& settings;
    Scene const scene;
    std::vector<RaySet> const sets;
    std::unique_ptr<Kernel> const ours;
    std::unique_ptr<Kernel> const peer; ///< null when there is none
    std::vector<Row> rows;
};

void writeNumbers(std::FILE* file, char const* name, std::vector<double> const& values) {
    std::fprintf(file, ", \"%s\": [", name);
    for (std::size_t i = 0; i < values.size(); ++i)
        std::fprintf(file, "%s%.6g", i == 0 ? "" : ", ", values[i]);
    std::fprintf(file, "]");
}

void writeJson(std::string const& path, std::vector<Row> const& rows) {
    std::FILE* const file = std::fopen(path.c_str(), "w");
    if (file == nullptr)
        throw std::runtime_error("cannot write " + path);
    std::fprintf(file, "{\"peer\": \"%s\", \"rows\": [", peerName().c_str());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        std::fprintf(file, "%s\n  {\"scene\": \"%s\", \"threads\": %d, \"what\": \"%s\"",
                     i == 0 ? "" : ",", rows[i].scene.c_str(), rows[i].threads,
                     rows[i].what.c_str());
        writeNumbers(file, "ours", rows[i].ours);
        writeNumbers(file, "peer", rows[i].peers);
        std::fprintf(file, ", \"peerMethod\": \"%s\", \"differing\": %zu}",
                     rows[i].peerMethod.c_str(), rows[i].differing);
    }
    std::fprintf(file, "\n]}\n");
    bool const isWritten = std::ferror(file) == 0;
    if (std::fclose(file) != 0 || !isWritten)
        throw std::runtime_error("cannot write all of " + path);
}

/// FNV-1a over words (G. Fowler, L. C. Noll and K.-P. Vo).
class Hash {
  public:
    void add(std::uint64_t word) { value = (value ^ word) * 0x100000001B3U; }
    void add(float number) { add(std::uint64_t{std::bit_cast<std::uint32_t>(number)}); }
    void add(Found const& found) {
        add(std::bit_cast<std::uint64_t>(found.t));
        add(static_cast<std::uint64_t>(found.particle));
        add(found.normal.x);
        add(found.normal.y);
        add(found.normal.z);
    }
    std::uint64_t value = 0xCBF29CE484222325U;
};

} // namespace

void comparePeers(Settings const& settings) {
    std::printf("%s; medians of %d runs in turn; a ratio above 1: ours is better\n",
                peerName().c_str(), settings.runs);
    std::printf("%-24s %2s  %-36s %9s %9s %6s\n", "scene", "th", "what", "ours", "peer", "ratio");
    std::vector<Row> rows;
    for (SceneRecipe const& recipe : settings.recipes()) {
        std::vector<Row> ofScene = Comparison(settings, recipe).run();
        std::move(ofScene.begin(), ofScene.end(), std::back_inserter(rows));
    }
    if (!settings.json.empty())
        writeJson(settings.json, rows);
}

namespace {

/// All that rays of every kind find, singly and in lists.
std::vector<Found> traceAll(int threads, Kernel const& kernel, std::vector<RaySet> const& sets) {
    std::vector<Found> all;
    for (RaySet const& set : sets)
        for (Form const form : hitForms) {
            std::vector<Found> found(set.rays.size());
            traceOnThreads(threads, kernel, form, 0, set.rays, found);
            all.insert(all.end(), found.begin(), found.end());
        }
    return all;
}

} // namespace

void printHashes(Settings const& settings) {
    constexpr char const* names[Kelpa::kernelVariants] = {"scalar", "sse2", "avx2", "avx512"};
    int const threads = settings.threads.front();
    auto const usual = Kelpa::chosenVariant();
    for (SceneRecipe const& recipe : settings.recipes()) {
        Scene const scene = makeScene(recipe);
        std::vector<RaySet> const sets = raySets(scene, settings.rays);
        for (bool const packed : {true, false}) {
            std::unique_ptr<Kernel> const ours = makeOurs(scene, packed);
            ours->build(1); // of equally near hits the one asked first stays: one order of records
            for (int v = 0; v < Kelpa::kernelVariants; ++v) {
                auto const variant = static_cast<Kelpa::KernelVariant>(v);
                if (!Kelpa::hasVariant(variant))
                    continue;
                Kelpa::chooseVariant(variant);
                Hash hash;
                for (Found const& one : traceAll(threads, *ours, sets))
                    hash.add(one);
                std::printf("%s %s %s %016" PRIx64 "\n", recipe.name().c_str(),
                            packed ? "packed" : "plain", names[v], hash.value);
            }
            Kelpa::chooseVariant(usual);
        }
    }
}

void printSchedules(Settings const& settings) {
    int const threads = settings.threads.back();
    for (SceneRecipe const& recipe : settings.recipes()) {
        Scene const scene = makeScene(recipe);
        std::vector<RaySet> const sets = raySets(scene, settings.rays);
        std::unique_ptr<Kernel> const ours = makeOurs(scene);
        ours->build(1);
        std::vector<Found> const expected = traceAll(threads, *ours, sets);
        std::size_t distances = 0, particles = 0;
        for (int run = 0; run < settings.runs; ++run) {
            ours->build(threads);
            std::vector<Found> const found = traceAll(threads, *ours, sets);
            for (std::size_t i = 0; i < found.size(); ++i) {
                distances += found[i].t != expected[i].t;
                particles += found[i].particle != expected[i].particle;
            }
        }
        std::printf("%s: of %zu rays %zu find another distance, %zu another particle\n",
                    recipe.name().c_str(),
                    expected.size() * static_cast<std::size_t>(settings.runs), distances,
                    particles);
    }
}

} // namespace kelpabench
