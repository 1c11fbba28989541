// Asks trees of every kind rays of every kind for as long as one likes, and explains every answer
// that is not the judge's. Ends with 1 when one cannot be explained.

#include "kelpa/host/threadpool.h"
#include "kelpa/spheretree/kernelvariant.h"

#include "explain.h"

#include <bit>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace kelpatest {
namespace {

struct Options {
    std::uint64_t seed = 1;
    double minutes = 1e9;
    double rays = 1e6;
    std::uint64_t round = 0; ///< the first; a report names its round
};

/// What came of the rays of one group of scenes.
struct Outcome {
    long rays = 0, hits = 0;
    long counts[numCauses] = {};
    double largest[numCauses] = {};

    void operator+=(Outcome const& other) {
        rays += other.rays;
        hits += other.hits;
        for (std::size_t i = 0; i < numCauses; ++i) {
            counts[i] += other.counts[i];
            largest[i] = std::max(largest[i], other.largest[i]);
        }
    }
};

enum Group { ordinaryStill, ordinaryMoving, hostileStill, hostileMoving, numGroups };
constexpr char const* groupNames[] = {"ordinary still", "ordinary moving", "hostile still",
                                      "hostile moving"};

constexpr CloudKind slab{"slab", addInBox<0, 9, 9, 1>};
constexpr CloudKind clustered{"clustered", addToCluster};
constexpr CloudKind points{"points", addInBox<0, 1, 1, 1>, "1"};
constexpr CloudKind ordinaryKinds[] = {uniform, clustered, slab, mixed, points};

/// Coordinates and radii of any bits: denormals, infinities and everything that is not a number.
constexpr CloudKind anyBits{"any bits", [](System& system, Random& random, int) {
                                auto const any = [&random] {
                                    auto const bits = static_cast<std::uint32_t>(random.bits());
                                    return std::bit_cast<float>(bits);
                                };
                                Vector center{};
                                for (int axis = 0; axis < 3; ++axis)
                                    center[axis] = any();
                                system.add(center, std::fabs(any()));
                            }};

/// Rays of ordinary pictures aim through particles, from the camera, or go on from a hit.
constexpr Aim ordinaryAims[] = {Aim::through, Aim::camera, Aim::leaving};

class Soak {
  public:
    explicit Soak(Options const& wanted) : options(wanted) {}

    /// True when every difference was explained.
    bool run() {
        auto const begin = std::chrono::steady_clock::now();
        auto const isOver = [&] {
            std::chrono::duration<double> const passed = std::chrono::steady_clock::now() - begin;
            return static_cast<double>(asked) >= options.rays ||
                   passed.count() > 60.0 * options.minutes;
        };
        for (round = options.round; !isOver(); ++round)
            askOneCloud();
        print();
        return unexplained == 0;
    }

  private:
    void askOneCloud() {
        random = Random(options.seed * 0x9E3779B97F4A7C15U + round);
        bool const isOrdinary = random.below(2) == 0;
        bool const isMoving = random.below(2) == 0;
        group = isOrdinary ? (isMoving ? ordinaryMoving : ordinaryStill)
                           : (isMoving ? hostileMoving : hostileStill);
        constexpr int counts[] = {1, 2, 17, 100, 300, 1000};
        int const n = isOrdinary ? 200 + random.below(1000) : 4 + counts[random.below(6)];
        auto const hostile = static_cast<std::size_t>(random.below(std::size(cloudKinds) + 1));
        CloudKind const kind = isOrdinary ? ordinaryKinds[random.below(std::size(ordinaryKinds))]
                               : hostile == std::size(cloudKinds) ? anyBits
                                                                  : cloudKinds[hostile];
        constexpr std::int32_t bases[] = {StillScene::usualBase, 0, -5,
                                          std::numeric_limits<std::int32_t>::max(),
                                          std::numeric_limits<std::int32_t>::min()};
        std::int32_t const base = bases[isOrdinary ? 0 : random.below(std::size(bases))];
        cloudName = kind.name;
        auto const variant = static_cast<KernelVariant>(random.below(kernelVariants));
        if (hasVariant(variant))
            chooseVariant(variant);
        if (!isMoving) {
            StillScene scene(kind.make(random.bits(), n), base);
            build(scene, [&] { scene.tree.build(nullptr, manager()); });
            ask(scene, [](float) {});
            return;
        }
        Way const way = ways[random.below(std::size(ways))];
        auto const times = static_cast<std::size_t>(isOrdinary ? 0 : random.below(5));
        Cloud cloud = kind.make(random.bits(), n);
        MovingScene scene(moved(std::move(cloud), way, random.bits(), times), base);
        build(scene, [&] { scene.tree.build(nullptr, manager(), 0); });
        ask(scene, [&scene](float time) { scene.freeze(time); });
    }

    /// Builds with parameters that are the usual ones in three of four hostile clouds.
    template <class Scene, class Build> void build(Scene& scene, Build buildTree) {
        if (group >= hostileStill && random.below(4) == 0) {
            scene.tree.maxDepth = random.below(200);
            scene.tree.leafSizeFactor = random.between(0.0F, 4.0F);
            scene.tree.minNodeSize = 0.1F * random.unit();
        }
        buildTree();
    }

    ThreadManager* manager() { return random.below(2) == 0 ? &pool : nullptr; }

    template <class Scene, class Freeze> void ask(Scene& scene, Freeze freeze) {
        constexpr int bunches = 40;
        for (int bunch = 0; bunch < bunches; ++bunch) {
            float time = 0.001F + 0.998F * random.unit();
            if (group == hostileMoving && random.below(4) == 0)
                time = 0.25F * static_cast<float>(random.below(5));
            freeze(time);
            RaySource source(scene.cloud, random.bits());
            int const count = 1 + random.below(64);
            std::vector<Query> queries;
            for (int i = 0; i < count; ++i) {
                queries.push_back(group < hostileStill ? ordinaryQuery(source)
                                                       : hostileQuery(source));
                queries.back().time = time;
            }
            askBunch(scene, queries);
        }
    }

    Query ordinaryQuery(RaySource& source) {
        return source.make(ordinaryAims[random.below(std::size(ordinaryAims))]);
    }

    Query hostileQuery(RaySource& source) {
        constexpr float nan = std::numeric_limits<float>::quiet_NaN();
        constexpr float infinity = std::numeric_limits<float>::infinity();
        Query query = source.make(static_cast<Aim>(random.below(numAims)));
        switch (random.below(16)) {
        case 0: { // some or all of the direction is no direction
            constexpr float odd[] = {0.0F, -0.0F, nan, infinity, -infinity, 1e-44F, 1e38F, 1e-19F};
            for (int axis = 0; axis < 3; ++axis)
                if (random.below(2) == 0)
                    query.ray.dir[axis] = odd[random.below(std::size(odd))];
            break;
        }
        case 1: // any length
            query.ray.dir = scaled(query.ray.dir, random.powerOfTwo(-80, 80));
            break;
        case 2: { // an interval in the wrong order, empty, endless
            constexpr double ends[] = {0.0,
                                       -1.0,
                                       1.0,
                                       1e30,
                                       1e300,
                                       -1e300,
                                       1e-300,
                                       std::numeric_limits<double>::infinity(),
                                       -std::numeric_limits<double>::infinity()};
            query.tMin = ends[random.below(std::size(ends))];
            query.tMax = ends[random.below(std::size(ends))];
            break;
        }
        case 3: // behind the origin, too
            query.tMin = -query.tMax;
            break;
        case 4: { // an origin of no use
            constexpr double odd[] = {1e30, -1e300, 1e-310, static_cast<double>(nan),
                                      static_cast<double>(infinity)};
            query.ray.origin[random.below(3)] = odd[random.below(std::size(odd))];
            break;
        }
        default:
            break;
        }
        return query;
    }

    /// Asks single rays, and all of them as one list where origins are of single precision.
    template <class Scene> void askBunch(Scene& scene, std::vector<Query>& queries) {
        bool const asList = random.below(2) == 0;
        std::vector<RSRay> rays, answers;
        std::vector<int> codes;
        for (Query& query : queries) {
            for (double& from : query.ray.origin)
                from = asList ? roundedToSingle(from) : from;
            rays.push_back(scene.makeRay(query));
            // Only the low half of a number counts.
            rays.back().skipIndex ^= static_cast<std::int64_t>(random.bits() << 32U);
            answers.push_back(rays.back());
            codes.push_back(scene.owner.intersect(answers.back()));
            judge(scene, query, codes.back(), answers.back());
        }
        if (asList && !isSameAsList(scene, rays, answers, codes))
            report("list", queries[0], 0.0, 0.0);
    }

    template <class Scene>
    void judge(Scene const& scene, Query const& query, int code, RSRay const& ray) {
        Answer const expected = bruteForce(scene.cloud, query);
        ++asked;
        Outcome& outcome = outcomes[group];
        ++outcome.rays;
        outcome.hits += expected.code != 0;
        bool const isTrue = code != 0 && isTrueHit(scene, query, code, ray);
        bool const isSameHit =
            code == expected.code &&
            (code == 0 ||
             (isTrue && ray.hitT == expected.t && ray.hitLocalIndex == expected.on.index &&
              ray.hitPrimitive == &scene.shapes[static_cast<std::size_t>(expected.on.system)]));
        if (isSameHit) {
            ++outcome.counts[0];
            return;
        }
        Explanation const why = explain(scene, query, expected, code, ray.hitT, isTrue);
        auto const cause = static_cast<std::size_t>(why.cause);
        ++outcome.counts[cause];
        outcome.largest[cause] = std::max(outcome.largest[cause], why.size);
        if (why.cause == Cause::unexplained)
            report("ray", query, code == 0 ? -1.0 : ray.hitT,
                   expected.code == 0 ? -1.0 : expected.t);
    }

    void report(char const* what, Query const& query, double found, double expected) {
        if (++unexplained > 20)
            return;
        std::printf(
            "UNEXPLAINED %s: seed %llu round %llu, %s, %s, time %.9g: found %.17g, expected "
            "%.17g\n  from %.17g %.17g %.17g along %.9g %.9g %.9g in %.17g %.17g\n",
            what, static_cast<unsigned long long>(options.seed),
            static_cast<unsigned long long>(round), groupNames[group], cloudName,
            static_cast<double>(query.time), found, expected, query.ray.origin[0],
            query.ray.origin[1], query.ray.origin[2], static_cast<double>(query.ray.dir.x),
            static_cast<double>(query.ray.dir.y), static_cast<double>(query.ray.dir.z), query.tMin,
            query.tMax);
    }

    void print() const {
        std::printf("%-16s", "");
        for (char const* const name : groupNames)
            std::printf(" %15s", name);
        std::printf("   largest\n");
        auto const line = [this](char const* name, auto figure) {
            std::printf("%-16s", name);
            for (Outcome const& outcome : outcomes)
                std::printf(" %15ld", figure(outcome));
        };
        line("rays", [](Outcome const& outcome) { return outcome.rays; });
        std::printf("\n");
        line("hits", [](Outcome const& outcome) { return outcome.hits; });
        std::printf("\n");
        for (std::size_t i = 0; i < numCauses; ++i) {
            line(causeNames[i], [i](Outcome const& outcome) { return outcome.counts[i]; });
            double largest = 0.0;
            for (Outcome const& outcome : outcomes)
                largest = std::max(largest, outcome.largest[i]);
            std::printf("   %.3g\n", largest);
        }
    }

    Options const options;
    ThreadPool pool{2};
    Random random{0};
    std::uint64_t round = 0;
    Group group = ordinaryStill;
    char const* cloudName = "";
    Outcome outcomes[numGroups];
    long asked = 0;
    long unexplained = 0;
};

constexpr char const* usage = "kelpa_soak [--seed N] [--minutes M] [--rays N] [--round FIRST]\n";

template <class Number> bool parse(std::string_view text, Number& value) {
    auto const [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    return failure == std::errc{} && end == text.data() + text.size();
}

bool parse(int argc, char** argv, Options& options) {
    bool isRight = argc % 2 == 1;
    for (int i = 1; i + 1 < argc && isRight; i += 2) {
        std::string_view const name = argv[i];
        isRight = (name == "--seed" && parse(argv[i + 1], options.seed)) ||
                  (name == "--minutes" && parse(argv[i + 1], options.minutes)) ||
                  (name == "--rays" && parse(argv[i + 1], options.rays)) ||
                  (name == "--round" && parse(argv[i + 1], options.round));
    }
    return isRight;
}

} // namespace
} // namespace kelpatest

int main(int argc, char** argv) {
    kelpatest::Options options;
    if (!kelpatest::parse(argc, argv, options)) {
        std::fputs(kelpatest::usage, stderr);
        return 2;
    }
    return kelpatest::Soak(options).run() ? 0 : 1;
}
