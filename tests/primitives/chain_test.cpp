// What the classes above the particle primitives do by default, and what they pass on.

#include "kelpa/particleprimitives/particleprimitives.h"

#include "tests/support/scene.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace kelpatest {
namespace {

template <class T> T* addressOnly(std::uintptr_t number) {
    return reinterpret_cast<T*>(number);
}

class RecordingRaycaster final : public DynamicRaycaster<StaticBox> {
  public:
    void notifyUnload(int index, DynamicPrimitive<StaticBox>* primitive) override {
        unloads.emplace_back(index, primitive);
    }
    std::vector<std::pair<int, DynamicPrimitive<StaticBox>*>> unloads;
};

/// A generator that answers by itself.
class Answering final : public GeometryGenerator {
  public:
    Vector getGNormal(RSRay const&) const override { return {1.0F, 2.0F, 3.0F}; }
    Vector getGNormal(RayBunchParams const&, PrimitiveIntersections const&,
                      unsigned char lane) const override {
        return {static_cast<float>(lane), 0.0F, 0.0F};
    }
    void setIntersectionData(RSRay&, void* data) override { passed = data; }
    void setIntersectionData(RayBunchParams const&, PrimitiveIntersections& intersections,
                             unsigned char const*, unsigned long) override {
        passed = &intersections;
    }
    Shadeable* getShadeable() override { return addressOnly<Shadeable>(16); }
    ExtShadeData* getExtShadeData() override { return addressOnly<ExtShadeData>(32); }
    ExtTexMapping* getExtTexMapping() override { return addressOnly<ExtTexMapping>(48); }
    VolumeShader* getVolumeShader() override { return addressOnly<VolumeShader>(64); }
    ExtSurfaceProperties* getExtSurfaceProperties() override {
        return addressOnly<ExtSurfaceProperties>(80);
    }
    void* passed = nullptr;
};

TEST(PrimitiveChain, AnswersByDefaultAndAsksItsParentForTheRest) {
    GenericPrimitive plain;
    RSRay ray{};
    EXPECT_EQ(plain.intersect(ray), 0);
    EXPECT_TRUE(isSameHit(ray, RSRay{}));
    EXPECT_EQ(plain.type(), 0);
    EXPECT_EQ(plain.getMemUsage(), 0U);
    EXPECT_EQ(plain.getPrimitiveIndex(&plain), -1);
    EXPECT_EQ(plain.getNormal(ray).z, 0.0F);

    auto const bunch = std::make_unique<PrimitiveIntersections>();
    Answering top;
    EXPECT_EQ(top.getNormal(ray).y, 2.0F); // through the overridden getGNormal
    EXPECT_EQ(top.getNormal({}, *bunch, 9).x, 9.0F);

    GeometryGenerator middle;
    middle.parentGenerator = &top;
    plain.parentGenerator = &middle;
    EXPECT_EQ(plain.getShadeable(), top.getShadeable());
    EXPECT_EQ(plain.getExtShadeData(), top.getExtShadeData());
    EXPECT_EQ(plain.getExtTexMapping(), top.getExtTexMapping());
    EXPECT_EQ(plain.getVolumeShader(), top.getVolumeShader());
    EXPECT_EQ(plain.getExtSurfaceProperties(), top.getExtSurfaceProperties());
    plain.setIntersectionData(ray, &plain);
    EXPECT_EQ(top.passed, &plain);
    plain.setIntersectionData({}, *bunch, nullptr, 0);
    EXPECT_EQ(top.passed, bunch.get());
}

/// Expands into five and collapses into seven, and says when.
class Expanding final : public DynamicPrimitive<StaticBox> {
  public:
    explicit Expanding(RecordingRaycaster& asked) : raycaster(asked) {}
    void getBBox(StaticBox&) override {}
    int splittable() override { return 1; }
    void split(int, float, StaticBox&, StaticBox&) override {}
    int expand(DynamicRaycaster<StaticBox>* from, int index) override {
        EXPECT_EQ(from, &raycaster);
        EXPECT_TRUE(raycaster.unloads.empty());
        return 5 + index;
    }
    int collapse(DynamicRaycaster<StaticBox>* from, int index) override {
        EXPECT_EQ(from, &raycaster);
        EXPECT_EQ(raycaster.unloads.size(), 1U) << "told before";
        return 7 + index;
    }

  private:
    RecordingRaycaster& raycaster;
};

TEST(PrimitiveChain, LoadsByExpandingAndCollapsesAfterTelling) {
    RecordingRaycaster raycaster;
    Expanding primitive(raycaster);
    Resource& resource = primitive;
    EXPECT_EQ(resource.load(nullptr, 100, &raycaster), 105);
    EXPECT_EQ(resource.unload(nullptr, 200, &raycaster), 207);
    EXPECT_EQ(raycaster.unloads, (decltype(raycaster.unloads){{200, &primitive}}));
    Resource plain;
    EXPECT_EQ(plain.load(nullptr, 1, &raycaster) + plain.unload(nullptr, 1, &raycaster), 0);
    EXPECT_EQ(raycaster.unloads.size(), 1U);
}

TEST(StillPrimitives, LoadWithoutExpandingAndTellWhenTheyUnload) {
    StaticParticlePrimitive primitive(0, nullptr, nullptr, false);
    RecordingRaycaster raycaster;
    EXPECT_EQ(primitive.load(nullptr, 7, &raycaster), 0);
    EXPECT_TRUE(raycaster.unloads.empty());
    EXPECT_EQ(primitive.unload(nullptr, 7, &raycaster), 0);
    EXPECT_EQ(raycaster.unloads, (decltype(raycaster.unloads){{7, &primitive}}));
    EXPECT_EQ(primitive.type(), 4914);
    EXPECT_EQ(primitive.expandable() + primitive.splittable(), 0);
}

} // namespace
} // namespace kelpatest
