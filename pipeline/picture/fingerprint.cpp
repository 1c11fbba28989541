// Mixes particles and options into one number.
#include "pipeline/picture/fingerprint.h"

#include <bit>
#include <cstring>
#include <type_traits>
#include <vector>

namespace pipeline {

namespace {

/// Mixes values into one number, eight bytes at a time.
class Mixer {
  public:
    void add(std::uint64_t word) {
        // An odd factor without a pattern, and a turn that brings its high bits down again.
        constexpr std::uint64_t factor = 0x9E3779B97F4A7C15U;
        state = std::rotl((state ^ word) * factor, 29);
    }

    /// Numbers, by their bits.
    template <class... Number>
    requires(std::is_arithmetic_v<Number>&&...) void addNumbers(Number const&... numbers) {
        (addBytes(&numbers, sizeof numbers), ...);
    }
    void addVector(Kelpa::Vector const& v) { addNumbers(v.x, v.y, v.z); }
    void addVec(Vec const& v) { addNumbers(v.x, v.y, v.z); }

    void addText(std::string const& text) {
        add(text.size());
        addBytes(text.data(), text.size());
    }

    template <class Value> void addAll(std::vector<Value> const& values) {
        static_assert(std::has_unique_object_representations_v<Value> ||
                      sizeof(Value) % sizeof(float) == 0); // no bytes between numbers
        add(values.size());
        if (!values.empty())
            addBytes(values.data(), values.size() * sizeof(Value));
    }

    template <class Value, class Add>
    void addIf(std::optional<Value> const& value, Add const& how) {
        add(value ? 1 : 0);
        if (value)
            how(*value);
    }

    std::uint64_t result() const {
        // Once more for the last words, which have had few turns.
        std::uint64_t const folded = (state ^ (state >> 32U)) * 0xD6E8FEB86659FD93U;
        return folded ^ (folded >> 32U);
    }

  private:
    void addBytes(void const* from, std::size_t count) {
        auto const* at = static_cast<char const*>(from);
        for (; count >= 8; count -= 8, at += 8) {
            std::uint64_t word = 0;
            std::memcpy(&word, at, 8);
            add(word);
        }
        if (count > 0) {
            std::uint64_t word = 0;
            std::memcpy(&word, at, count);
            add(word);
        }
    }

    std::uint64_t state = 0x243F6A8885A308D3U; // anything but zero
};

void addParticle(Mixer& mixer, Snapshot const& snapshot, std::size_t particle) {
    mixer.addVector(snapshot.positions[particle]);
    mixer.addNumbers(snapshot.radii[particle]);
}

/// A sum over particles, each with its place: so those who share them may add up theirs.
std::uint64_t sumOfParticles(Scene const& scene) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < scene.first->positions.size(); ++i) {
        Mixer mixer;
        mixer.add(static_cast<std::uint64_t>(scene.firstPlace) + i);
        addParticle(mixer, *scene.first, i);
        if (scene.second != nullptr)
            addParticle(mixer, *scene.second, i);
        if (!scene.colors.empty())
            mixer.addVector(scene.colors[i]);
        if (!scene.ids.empty())
            mixer.addNumbers(scene.ids[i]);
        sum += mixer.result();
    }
    if (scene.sharers == nullptr)
        return sum;
    std::int64_t halves[] = {static_cast<std::int64_t>(sum >> 32U),
                             static_cast<std::int64_t>(sum & 0xFFFFFFFFU)};
    scene.sharers->fold(RayTransport::Fold::sum, halves); // which has no room for more bits
    return (static_cast<std::uint64_t>(halves[0]) << 32U) + static_cast<std::uint64_t>(halves[1]);
}

/// The colours of a map are those of the particles.
void addLegend(Mixer& mixer, Legend const& legend) {
    mixer.addText(legend.title);
    mixer.addIf(legend.range,
                [&](std::array<float, 2> const& range) { mixer.addNumbers(range[0], range[1]); });
    for (Legend::Kind const& kind : legend.kinds) {
        mixer.addText(kind.name);
        mixer.addVector(kind.color);
    }
    mixer.addNumbers(legend.moreKinds);
}

void addScene(Mixer& mixer, Scene const& scene) {
    mixer.add(sumOfParticles(scene));
    mixer.addNumbers(scene.first->part(0, 0).particleType);
    mixer.addVector(scene.color);
    mixer.addVec(scene.origin);
    mixer.addNumbers(scene.upAxis);
    for (ColumnLayer const& layer : scene.layers) {
        mixer.addText(layer.name);
        mixer.addAll(layer.values);
    }
    mixer.addIf(scene.legend, [&](Legend const& legend) { addLegend(mixer, legend); });
    for (Rod const& rod : scene.rods) {
        mixer.addVec(rod.from);
        mixer.addVec(rod.to);
        mixer.addNumbers(rod.radius);
    }
}

// The bindings name every member: one that is new does not compile until it is here as well.

void addCamera(Mixer& mixer, Camera const& camera) {
    auto const& [eye, right, up, forward, extent, isParallel, width, height, lensRadius, focus] =
        camera;
    for (Vec const& v : {eye, right, up, forward})
        mixer.addVec(v);
    mixer.addNumbers(extent, isParallel, width, height, lensRadius, focus);
}

void addLight(Mixer& mixer, LightOptions const& light) {
    auto const& [shade, aoSamples, aoDistance, shadows] = light;
    mixer.addNumbers(static_cast<int>(shade), aoSamples);
    mixer.addIf(aoDistance, [&](double distance) { mixer.addNumbers(distance); });
    mixer.addIf(shadows, [&](bool wanted) { mixer.addNumbers(wanted); });
}

void addImage(Mixer& mixer, ImageOptions const& image) {
    auto const& [width, height, samples, seed, background, transparent, rodColor, crop, tile,
                 shutter, depth, normal, id, position, isDepthPlanar, velocity, columns] = image;
    static_cast<void>(crop); // the part alone
    static_cast<void>(tile);
    static_cast<void>(columns); // the scene has them
    mixer.addNumbers(width, height, samples, seed, transparent, shutter[0], shutter[1], depth,
                     normal, id, position, isDepthPlanar, velocity);
    mixer.addIf(background, [&](Kelpa::Vector const& color) { mixer.addVector(color); });
    mixer.addIf(rodColor, [&](Kelpa::Vector const& color) { mixer.addVector(color); });
}

} // namespace

std::uint64_t fingerprintOf(Scene const& scene, Camera const& camera, LightOptions const& light,
                            ImageOptions const& image) {
    Mixer mixer;
    addScene(mixer, scene);
    addCamera(mixer, camera);
    addLight(mixer, light);
    addImage(mixer, image);
    return mixer.result();
}

} // namespace pipeline
