// A small host of its own: services, threads from oneTBB, progress, rays; nothing of kelpa/host.
#include "kelpa/particleprimitives/particleprimitives.h"

#include <tbb/info.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <new>
#include <numbers>
#include <thread>
#include <vector>

// The six services that the library asks of its host, declared in kelpa/foundation/platform.h.
namespace Kelpa {

namespace {
/// Remembers a pulse that nobody waits for yet, so that the build never sleeps past its end.
struct Event {
    std::mutex mutex;
    std::condition_variable came;
    bool pulsed = false;
};
} // namespace

void debug(char const* format, ...) {
    va_list values;
    va_start(values, format);
    std::vfprintf(stderr, format, values);
    va_end(values);
}

void* uniCreateEvent(void*, unsigned int, unsigned int, char const*) {
    return new (std::nothrow) Event; // null is passed back to the functions below
}

void uniPulseEvent(void* handle) {
    auto* const event = static_cast<Event*>(handle);
    if (event == nullptr)
        return;
    std::lock_guard const scope(event->mutex);
    event->pulsed = true;
    event->came.notify_all();
}

int uniMsgWaitForMultipleObjects(int, void* const* events, unsigned int, unsigned int milliseconds,
                                 int) {
    std::chrono::milliseconds const slice{milliseconds};
    auto* const event = static_cast<Event*>(events[0]); // the library waits for one at a time
    if (event == nullptr) {
        std::this_thread::sleep_for(slice);
        return 1; // not pulsed: the build looks for itself
    }
    std::unique_lock scope(event->mutex);
    event->came.wait_for(scope, slice, [event] { return event->pulsed; });
    bool const pulsed = event->pulsed;
    event->pulsed = false;
    return pulsed ? 0 : 1;
}

void uniCloseHandle(void* handle) {
    delete static_cast<Event*>(handle);
}

int getNumProcessors() {
    return tbb::info::default_concurrency();
}

} // namespace Kelpa

namespace {

/// Has the library's build jobs done by the threads that the rest of the renderer uses.
class ArenaThreads final : public Kelpa::ThreadManager {
  public:
    // `enqueue` neither waits nor runs the job inside another; a job throws nothing.
    void runThread(Kelpa::ThreadProcedure* procedure, void* parameter) override {
        jobs.fetch_add(1, std::memory_order_relaxed);
        arena.enqueue([procedure, parameter] { procedure->proc(parameter); });
    }

    std::atomic<int> jobs = 0;

  private:
    // No slot is kept for the thread that builds, which only waits.
    tbb::task_arena arena{tbb::task_arena::automatic, 0};
};

/// Passes the library's progress lines on, and its question whether to go on.
class Progress final : public Kelpa::ProgressCallback {
  public:
    // Asked for every record of every node, from many threads: one relaxed load.
    std::int32_t getAbort() override { return stop.load(std::memory_order_relaxed) ? 1 : 0; }

    void info(int, int level, char const* format, ...) override
        __attribute__((format(printf, 4, 5))) {
        if (level < Kelpa::progressLevel) // statistics, which nobody asked for
            return;
        va_list values;
        va_start(values, format);
        std::vprintf(format, values);
        va_end(values);
    }

    std::atomic<bool> stop = false; ///< set by a button, a signal, a closing window
};

/// The renderer's own ray and hit, as it has them anyway.
struct CameraRay {
    std::array<double, 3> origin;
    std::array<double, 3> direction;
    double nearest, farthest; ///< in lengths of `direction`
};
struct Hit {
    double t;
    std::int32_t particle;
    Kelpa::Vector normal; ///< of unit length
};

/// Asks a primitive that is alone in its tree; true on a hit.
bool trace(Kelpa::StaticParticlePrimitive& particles, CameraRay const& from, Hit& hit) {
    Kelpa::RSRay ray{};
    for (int axis = 0; axis < 3; ++axis) {
        auto const at = static_cast<std::size_t>(axis);
        ray.origin[axis] = from.origin[at];
        ray.dir[axis] = static_cast<float>(from.direction[at]);
    }
    // Both intervals: the first counts for a primitive alone in its tree, the second in a shared
    // one.
    ray.intervalMin = ray.clipMin = from.nearest;
    ray.intervalMax = ray.clipMax = ray.hitT = from.farthest;
    ray.skipIndex = -1; // starts on no particle
    if (particles.intersect(ray) == 0)
        return false;
    Kelpa::Vector const n = particles.getNormal(ray); // not normalised
    float const length = std::hypot(n.x, n.y, n.z);
    hit = {ray.hitT, ray.hitLocalIndex, {n.x / length, n.y / length, n.z / length}};
    return true;
}

} // namespace

int main() {
    // A torus of spheres, in arrays that stay as they are until the primitive is gone.
    constexpr int count = 100'000;
    constexpr float radius = 0.02F;
    std::vector<Kelpa::Vector> centers;
    for (int i = 0; i < count; ++i) {
        float const around = static_cast<float>(i) * (2.0F * std::numbers::pi_v<float> / count);
        float const tube = static_cast<float>(i % 1000) * 0.3F;
        float const fromAxis = 2.0F + 0.8F * std::cos(tube);
        centers.push_back(
            {fromAxis * std::cos(around), fromAxis * std::sin(around), 0.8F * std::sin(tube)});
    }
    std::vector<float> const radii(count, radius);
    Kelpa::ParticleData torus{0.0, 0, centers.data(), count, radii.data(), count, nullptr, 0};

    ArenaThreads threads;
    Progress progress;
    Kelpa::StaticParticlePrimitive particles(0, &torus, nullptr, true);
    try {
        particles.build(&progress, &threads, 60, 0.0F, 2.0F, 0);
    } catch (Kelpa::ExceptionMsg const& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }

    // Once it is built, every thread may ask.
    constexpr int width = 72, height = 28;
    std::vector<char> picture(width * height, ' ');
    std::atomic<int> hits = 0;
    tbb::parallel_for(0, height, [&](int row) {
        for (int column = 0; column < width; ++column) {
            CameraRay const ray{
                {-3.0 + 6.0 * (column + 0.5) / width, -4.5 + 6.0 * (row + 0.5) / height, 9.0},
                {0.0, 0.5, -3.0},
                0.0,
                1e6};
            Hit hit;
            if (!trace(particles, ray, hit))
                continue;
            hits.fetch_add(1, std::memory_order_relaxed);
            float const light = std::fmax(0.0F, 0.6F * hit.normal.z - 0.8F * hit.normal.y);
            std::size_t const place = static_cast<std::size_t>(height - 1 - row) * width;
            picture[place + static_cast<std::size_t>(column)] =
                ".:-=+*#%@"[static_cast<int>(light * 8.99F)];
        }
    });
    for (int row = 0; row < height; ++row)
        std::printf("%.*s\n", width, picture.data() + row * width);
    std::printf("%d of %d rays hit; build jobs on oneTBB: %s\n", hits.load(), width * height,
                threads.jobs > 0 ? "yes" : "no");
}
