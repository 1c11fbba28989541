// Embree 3 on the same scenes and rays.

#include "bench/kernels.h"

#include <embree3/rtcore.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

namespace kelpabench {

namespace {

constexpr Found nothing = std::numeric_limits<Found>::infinity();

/// Where a bounced ray may start to hit: behind its own sphere's surface, as far as single
/// precision can tell.
float startOf(Ray const& ray) {
    return ray.skip >= 0 ? 1e-6F : 0.0F;
}

class Embree final : public Kernel {
  public:
    Embree() {
        // The fastest form for lists is not known beforehand, so each is tried: packets and
        // streams.
        useDevice(1);
    }
    ~Embree() override { release(); }

    void build(Scene const& scene, int threads) override {
        release();
        useDevice(threads);
        world = rtcNewScene(device);
        RTCGeometry const geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_SPHERE_POINT);
        unsigned int const steps = scene.moved.empty() ? 1 : 2;
        rtcSetGeometryTimeStepCount(geometry, steps);
        for (unsigned int step = 0; step < steps; ++step) {
            auto* const spheres = static_cast<float*>(
                rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, step, RTC_FORMAT_FLOAT4,
                                        4 * sizeof(float), scene.positions.size()));
            auto const& positions = step == 0 ? scene.positions : scene.moved;
            for (std::size_t i = 0; i < positions.size(); ++i) {
                std::memcpy(spheres + 4 * i, &positions[i], 3 * sizeof(float));
                spheres[4 * i + 3] = scene.radii[i];
            }
        }
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(world, geometry);
        rtcReleaseGeometry(geometry);
        rtcCommitScene(world);
    }

    void traceSingle(std::span<Ray const> rays, std::span<Found> found) override {
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        for (std::size_t i = 0; i < rays.size(); ++i) {
            RTCRayHit query;
            fill(query, rays[i]);
            rtcIntersect1(world, &context, &query);
            found[i] = query.hit.geomID == RTC_INVALID_GEOMETRY_ID ? nothing : query.ray.tfar;
        }
    }

    void traceLists(std::span<Ray const> rays, std::span<Found> found) override {
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        context.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
        constexpr std::size_t lanes = 64;
        RTCRayHit queries[lanes];
        for (std::size_t begin = 0; begin < rays.size(); begin += lanes) {
            std::size_t const count = std::min(lanes, rays.size() - begin);
            for (std::size_t k = 0; k < count; ++k)
                fill(queries[k], rays[begin + k]);
            rtcIntersect1M(world, &context, queries, static_cast<unsigned int>(count),
                           sizeof(RTCRayHit));
            for (std::size_t k = 0; k < count; ++k)
                found[begin + k] = queries[k].hit.geomID == RTC_INVALID_GEOMETRY_ID
                                       ? nothing
                                       : queries[k].ray.tfar;
        }
    }

    std::uint64_t memory() override {
        return static_cast<std::uint64_t>(std::max<ssize_t>(bytes, 0));
    }

  private:
    static void fill(RTCRayHit& query, Ray const& ray) {
        query.ray.org_x = static_cast<float>(ray.origin[0]);
        query.ray.org_y = static_cast<float>(ray.origin[1]);
        query.ray.org_z = static_cast<float>(ray.origin[2]);
        query.ray.tnear = startOf(ray);
        query.ray.dir_x = ray.dir.x;
        query.ray.dir_y = ray.dir.y;
        query.ray.dir_z = ray.dir.z;
        query.ray.time = ray.time;
        query.ray.tfar = nothing;
        query.ray.mask = 0xFFFFFFFFU;
        query.ray.id = 0;
        query.ray.flags = 0;
        query.hit.geomID = RTC_INVALID_GEOMETRY_ID;
        query.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    }

    static bool countMemory(void* counter, ssize_t change, bool) {
        *static_cast<std::atomic<ssize_t>*>(counter) += change;
        return true;
    }

    void useDevice(int threads) {
        std::string const config = "threads=" + std::to_string(threads);
        device = rtcNewDevice(config.c_str());
        if (device == nullptr)
            throw std::runtime_error("the peer has no device");
        bytes = 0;
        rtcSetDeviceMemoryMonitorFunction(device, countMemory, &bytes);
    }

    void release() {
        if (world != nullptr)
            rtcReleaseScene(world);
        if (device != nullptr)
            rtcReleaseDevice(device);
        world = nullptr;
        device = nullptr;
    }

    RTCDevice device = nullptr;
    RTCScene world = nullptr;
    std::atomic<ssize_t> bytes = 0;
};

} // namespace

std::unique_ptr<Kernel> makePeer() {
    return std::make_unique<Embree>();
}

char const* peerName() {
    return "Embree " RTC_VERSION_STRING;
}

} // namespace kelpabench
