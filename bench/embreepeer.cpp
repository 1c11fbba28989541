// Embree 3 or 4 on the same scenes and rays.

#include "bench/kernels.h"

#include KELPA_EMBREE_HEADER

#include <algorithm>
#include <atomic>
#include <chrono>
#include <stdexcept>

namespace kelpabench {

namespace {

// What the two interfaces call differently.
#if RTC_VERSION_MAJOR >= 4
struct Query {
    Query(RTCScene scene, bool coherent) : world(scene) {
        rtcInitIntersectArguments(&arguments);
        arguments.flags = coherent ? RTC_RAY_QUERY_FLAG_COHERENT : RTC_RAY_QUERY_FLAG_INCOHERENT;
        rtcInitOccludedArguments(&occludedArguments);
        occludedArguments.flags = arguments.flags;
    }
    void operator()(int const* valid, RTCRayHit4& rays) {
        rtcIntersect4(valid, world, &rays, &arguments);
    }
    void occluded(RTCRay& ray) { rtcOccluded1(world, &ray, &occludedArguments); }
    void occluded(int const* valid, RTCRay4& rays) {
        rtcOccluded4(valid, world, &rays, &occludedArguments);
    }
    void occluded(int const* valid, RTCRay8& rays) {
        rtcOccluded8(valid, world, &rays, &occludedArguments);
    }
    void occluded(int const* valid, RTCRay16& rays) {
        rtcOccluded16(valid, world, &rays, &occludedArguments);
    }
    void operator()(RTCRayHit& ray) { rtcIntersect1(world, &ray, &arguments); }
    void operator()(int const* valid, RTCRayHit8& rays) {
        rtcIntersect8(valid, world, &rays, &arguments);
    }
    void operator()(int const* valid, RTCRayHit16& rays) {
        rtcIntersect16(valid, world, &rays, &arguments);
    }
    RTCScene world;
    RTCIntersectArguments arguments;
    RTCOccludedArguments occludedArguments;
};
#else
struct Query {
    Query(RTCScene scene, bool coherent) : world(scene) {
        rtcInitIntersectContext(&context);
        context.flags =
            coherent ? RTC_INTERSECT_CONTEXT_FLAG_COHERENT : RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT;
    }
    void operator()(RTCRayHit& ray) { rtcIntersect1(world, &context, &ray); }
    void operator()(int const* valid, RTCRayHit4& rays) {
        rtcIntersect4(valid, world, &context, &rays);
    }
    void occluded(RTCRay& ray) { rtcOccluded1(world, &context, &ray); }
    void occluded(int const* valid, RTCRay4& rays) { rtcOccluded4(valid, world, &context, &rays); }
    void occluded(int const* valid, RTCRay8& rays) { rtcOccluded8(valid, world, &context, &rays); }
    void occluded(int const* valid, RTCRay16& rays) {
        rtcOccluded16(valid, world, &context, &rays);
    }
    void operator()(int const* valid, RTCRayHit8& rays) {
        rtcIntersect8(valid, world, &context, &rays);
    }
    void operator()(int const* valid, RTCRayHit16& rays) {
        rtcIntersect16(valid, world, &context, &rays);
    }
    void operator()(std::span<RTCRayHit> rays) {
        rtcIntersect1M(world, &context, rays.data(), static_cast<unsigned int>(rays.size()),
                       sizeof(RTCRayHit));
    }
    RTCScene world;
    RTCIntersectContext context;
};
#endif

constexpr float farAway = 1e30F;

void fill(RTCRayHit& query, Ray const& ray) {
    query.ray = {ray.origin.x, ray.origin.y, ray.origin.z, 0.0F,        ray.dir.x, ray.dir.y,
                 ray.dir.z,    ray.time,     farAway,      0xFFFFFFFFU, 0,         0};
    query.hit.primID = RTC_INVALID_GEOMETRY_ID;
    query.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    query.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
}

Found read(RTCRayHit const& query) {
    if (query.hit.geomID == RTC_INVALID_GEOMETRY_ID)
        return {};
    return {static_cast<double>(query.ray.tfar),
            {query.hit.Ng_x, query.hit.Ng_y, query.hit.Ng_z},
            static_cast<std::int32_t>(query.hit.primID)};
}

void traceSingle(Query& query, std::span<Ray const> rays, std::span<Found> found) {
    for (std::size_t i = 0; i < rays.size(); ++i) {
        RTCRayHit ray;
        fill(ray, rays[i]);
        query(ray);
        found[i] = read(ray);
    }
}

/// What an occlusion query leaves: a ray that hits anything ends at minus infinity.
Found occlusionOf(float tfar) {
    return tfar < 0.0F ? Found{0.0, {}, 0} : Found{};
}

void traceOccluded(Query& query, std::span<Ray const> rays, std::span<Found> found) {
    for (std::size_t i = 0; i < rays.size(); ++i) {
        RTCRayHit ray;
        fill(ray, rays[i]);
        query.occluded(ray.ray);
        found[i] = occlusionOf(ray.ray.tfar);
    }
}

template <class Packet, std::size_t width, bool occlusion>
void tracePackets(Query& query, std::span<Ray const> rays, std::span<Found> found) {
    for (std::size_t begin = 0; begin < rays.size(); begin += width) {
        alignas(64) int valid[width];
        Packet packet;
        for (std::size_t k = 0; k < width; ++k) {
            valid[k] = begin + k < rays.size() ? -1 : 0;
            Ray const& ray = rays[std::min(begin + k, rays.size() - 1)];
            packet.ray.org_x[k] = ray.origin.x;
            packet.ray.org_y[k] = ray.origin.y;
            packet.ray.org_z[k] = ray.origin.z;
            packet.ray.tnear[k] = 0.0F;
            packet.ray.dir_x[k] = ray.dir.x;
            packet.ray.dir_y[k] = ray.dir.y;
            packet.ray.dir_z[k] = ray.dir.z;
            packet.ray.time[k] = ray.time;
            packet.ray.tfar[k] = farAway;
            packet.ray.mask[k] = 0xFFFFFFFFU;
            packet.ray.id[k] = 0;
            packet.ray.flags[k] = 0;
            packet.hit.primID[k] = RTC_INVALID_GEOMETRY_ID;
            packet.hit.geomID[k] = RTC_INVALID_GEOMETRY_ID;
            packet.hit.instID[0][k] = RTC_INVALID_GEOMETRY_ID;
        }
        if constexpr (occlusion)
            query.occluded(valid, packet.ray);
        else
            query(valid, packet);
        for (std::size_t k = 0; k < width && begin + k < rays.size(); ++k) {
            found[begin + k] = occlusion ? occlusionOf(packet.ray.tfar[k]) : Found{};
            if (packet.hit.geomID[k] != RTC_INVALID_GEOMETRY_ID)
                found[begin + k] = {static_cast<double>(packet.ray.tfar[k]),
                                    {packet.hit.Ng_x[k], packet.hit.Ng_y[k], packet.hit.Ng_z[k]},
                                    static_cast<std::int32_t>(packet.hit.primID[k])};
        }
    }
}

#if RTC_VERSION_MAJOR < 4
void traceStream(Query& query, std::span<Ray const> rays, std::span<Found> found) {
    RTCRayHit queries[listLength];
    for (std::size_t begin = 0; begin < rays.size(); begin += listLength) {
        std::size_t const count = std::min(listLength, rays.size() - begin);
        for (std::size_t k = 0; k < count; ++k)
            fill(queries[k], rays[begin + k]);
        query(std::span(queries, count));
        for (std::size_t k = 0; k < count; ++k)
            found[begin + k] = read(queries[k]);
    }
}
#endif

/// Which entry point serves a list best depends on the processor and on the rays.
struct ListMethod {
    char const* name;
    void (*trace)(Query&, std::span<Ray const>, std::span<Found>);
    bool coherent;
};
constexpr ListMethod listMethods[] = {
    {"single", traceSingle, false},
    {"packets of 4", tracePackets<RTCRayHit4, 4, false>, true},
    {"packets of 8", tracePackets<RTCRayHit8, 8, false>, false},
    {"coherent packets of 8", tracePackets<RTCRayHit8, 8, false>, true},
    {"packets of 16", tracePackets<RTCRayHit16, 16, false>, false},
    {"coherent packets of 16", tracePackets<RTCRayHit16, 16, false>, true},
#if RTC_VERSION_MAJOR < 4
    {"stream", traceStream, false},
    {"coherent stream", traceStream, true},
#endif
};
constexpr ListMethod occlusionMethods[] = {
    {"single", traceOccluded, true},
    {"packets of 4", tracePackets<RTCRayHit4, 4, true>, true},
    {"packets of 8", tracePackets<RTCRayHit8, 8, true>, true},
    {"packets of 16", tracePackets<RTCRayHit16, 16, true>, true},
};

/// A sphere as the peer reads it.
struct alignas(16) SphereVertex {
    float x, y, z, radius;
};

class Embree final : public Kernel {
  public:
    explicit Embree(Scene const& scene) {
        int const last = scene.isMoving() ? mostSteps - 1 : 0;
        for (int step = 0; step <= last; ++step)
            for (std::size_t i = 0; i < scene.positions.size(); ++i) {
                Kelpa::Vector const at = scene.center(
                    static_cast<std::int32_t>(i),
                    last == 0 ? 0.0F : static_cast<float>(step) / static_cast<float>(last));
                vertices[step].push_back({at.x, at.y, at.z, scene.radii[i]});
            }
        nameMethods(listMethods, names[0], shownNames[0]);
        nameMethods(occlusionMethods, names[1], shownNames[1]);
    }
    ~Embree() override { release(); }

    double build(int threads) override {
        release();
        device = rtcNewDevice(("threads=" + std::to_string(threads)).c_str());
        if (device == nullptr)
            throw std::runtime_error("the peer refuses to start");
        rtcSetDeviceMemoryMonitorFunction(device, countMemory, &bytes);
        auto const begin = std::chrono::steady_clock::now();
        worlds[0] = makeWorld(isMoving() ? mostSteps - 1 : 1);
        std::chrono::duration<double> const passed = std::chrono::steady_clock::now() - begin;
        bytesOfFirst = bytes;
        if (isMoving()) // only with steps between can it part time
            worlds[1] = makeWorld(1);
        if (rtcGetDeviceError(device) != RTC_ERROR_NONE)
            throw std::runtime_error("the peer fails to build");
        return passed.count();
    }

    std::span<char const* const> methods(Form form) const override {
        std::span const all(shownNames[form == Form::occlusion ? 1 : 0]);
        return form == Form::single ? all.first(worldsInUse()) : all;
    }

    void trace(Form form, std::size_t method, std::span<Ray const> rays,
               std::span<Found> found) const override {
        ListMethod const* const methods = form == Form::occlusion ? occlusionMethods : listMethods;
        ListMethod const& chosen = methods[method / worldsInUse()];
        Query query(worlds[method % worldsInUse()], chosen.coherent);
        chosen.trace(query, rays, found);
    }

    Memory memory() override {
        return {static_cast<std::uint64_t>(std::max<std::int64_t>(bytesOfFirst, 0)), 0};
    }

  private:
    static bool countMemory(void* counter, std::ptrdiff_t change, bool) {
        *static_cast<std::atomic<std::int64_t>*>(counter) += change;
        return true;
    }

    /// A world of which every `stride`-th time step is given.
    RTCScene makeWorld(unsigned int stride) {
        RTCScene const world = rtcNewScene(device);
        RTCGeometry const geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_SPHERE_POINT);
        unsigned int const steps = isMoving() ? (mostSteps - 1) / stride + 1 : 1;
        rtcSetGeometryTimeStepCount(geometry, steps);
        for (unsigned int step = 0; step < steps; ++step) {
            std::vector<SphereVertex> const& given = vertices[step * stride];
            rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, step, RTC_FORMAT_FLOAT4,
                                       given.data(), 0, sizeof(SphereVertex), given.size());
        }
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(world, geometry);
        rtcReleaseGeometry(geometry);
        rtcCommitScene(world);
        return world;
    }

    void release() {
        for (RTCScene& world : worlds) {
            if (world != nullptr)
                rtcReleaseScene(world);
            world = nullptr;
        }
        if (device != nullptr)
            rtcReleaseDevice(device);
        device = nullptr;
        bytes = 0;
    }

    bool isMoving() const { return !vertices[1].empty(); }
    std::size_t worldsInUse() const { return isMoving() ? std::size(worlds) : 1; }

    /// Each method for each world.
    void nameMethods(std::span<ListMethod const> methods, std::vector<std::string>& all,
                     std::vector<char const*>& shown) const {
        for (ListMethod const& method : methods)
            for (std::size_t world = 0; world < worldsInUse(); ++world)
                all.push_back(method.name + std::string(world == 0 ? "" : ", 5 time steps"));
        for (std::string const& name : all)
            shown.push_back(name.c_str());
    }

    static constexpr unsigned int mostSteps = 5;
    std::vector<SphereVertex> vertices[mostSteps]; ///< by time; only the first if nothing moves
    std::vector<std::string> names[2];             ///< of methods that find hits, and occlusion
    std::vector<char const*> shownNames[2];
    std::atomic<std::int64_t> bytes = 0;
    std::int64_t bytesOfFirst = 0;
    RTCDevice device = nullptr;
    RTCScene worlds[2] = {}; ///< moving: from first and last step alone, and from all
};

} // namespace

std::unique_ptr<Kernel> makePeer(Scene const& scene) {
    return std::make_unique<Embree>(scene);
}

std::string peerName() {
    return "Embree " RTC_VERSION_STRING;
}

} // namespace kelpabench
