// The base classes through which a host sees a primitive.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/vector.h"

#include <cstdint>

namespace Kelpa {

// Types of the host that are only passed through.
class ResourceManager;
class Shadeable;
class ExtShadeData;
class ExtTexMapping;
class VolumeShader;
class ExtSurfaceProperties;

template <class B> class DynamicPrimitive;

/// The host's raycaster over primitives with bounds `B`.
template <class B> class DynamicRaycaster {
  public:
    /// Tells the raycaster that `primitive` is being unloaded; `index` is what `unload` was given.
    virtual void notifyUnload(int index, DynamicPrimitive<B>* primitive) = 0;

  protected:
    ~DynamicRaycaster() = default;
};

// The order of the virtual operations below is part of the interface: hosts call through the
// tables. No class of the chain has a virtual destructor, so a primitive is destroyed through its
// own type; hosts that ask for a warning about such classes are spared it here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// Something that a host can load and unload.
class Resource {
  public:
    /// Non-zero when loading turns it into something else; never for particles.
    virtual int expandable() { return 0; }
    /// Makes it ready under an index of the host's; 0 when nothing was expanded.
    virtual int load(ResourceManager*, int, void*) { return 0; }
    /// Takes back what `load` did, given the same arguments.
    virtual int unload(ResourceManager*, int, void*) { return 0; }

    /// Bytes held.
    virtual std::uint64_t getMemUsage() { return 0; }
};

/// Something that shading asks about a hit. What it does not know itself it asks its parent.
class GeometryGenerator : public Resource {
  public:
    /// The geometric normal of a hit, not normalised.
    virtual Vector getGNormal(RSRay const&) const { return {0.0F, 0.0F, 0.0F}; }
    /// The same for lane 0 to 63 of a bunch.
    virtual Vector getGNormal(RayBunchParams const&, PrimitiveIntersections const&,
                              unsigned char) const {
        return {0.0F, 0.0F, 0.0F};
    }

    /// The shading normal of a hit: the geometric one unless overridden.
    virtual Vector getNormal(RSRay const& ray) const { return getGNormal(ray); }
    /// The same for lane 0 to 63 of a bunch.
    virtual Vector getNormal(RayBunchParams const& params,
                             PrimitiveIntersections const& intersections,
                             unsigned char lane) const {
        return getGNormal(params, intersections, lane);
    }

    // The rest of the shading queries go to the parent, which must not be null then.
    /// Has the parent fill in what shading a hit needs.
    virtual void setIntersectionData(RSRay& ray, void* data) {
        parentGenerator->setIntersectionData(ray, data);
    }
    /// The same for the lanes of a bunch that `lanes` lists.
    virtual void setIntersectionData(RayBunchParams const& params,
                                     PrimitiveIntersections& intersections,
                                     unsigned char const* lanes, unsigned long numLanes) {
        parentGenerator->setIntersectionData(params, intersections, lanes, numLanes);
    }
    /// A primitive's number in this generator; -1 when it is not known.
    virtual int getPrimitiveIndex(GenericPrimitive const*) const { return -1; }
    /// The parent's answer, as with the four that follow.
    virtual Shadeable* getShadeable() { return parentGenerator->getShadeable(); }
    /// The parent's answer.
    virtual ExtShadeData* getExtShadeData() { return parentGenerator->getExtShadeData(); }
    /// The parent's answer.
    virtual ExtTexMapping* getExtTexMapping() { return parentGenerator->getExtTexMapping(); }
    /// The parent's answer.
    virtual VolumeShader* getVolumeShader() { return parentGenerator->getVolumeShader(); }
    /// The parent's answer.
    virtual ExtSurfaceProperties* getExtSurfaceProperties() {
        return parentGenerator->getExtSurfaceProperties();
    }

    /// Set by the host before any query that is passed on to it; the primitives never touch it.
    GeometryGenerator* parentGenerator;
};

/// Something that rays can hit.
class GenericPrimitive : public GeometryGenerator {
  public:
    /// Finds the closest hit in the ray's interval, writes it into the ray and returns its code, or
    /// returns 0 and leaves the ray as it was.
    virtual int intersect(RSRay&) { return 0; }

    /// A number that tells the kinds of primitives apart.
    virtual int type() const { return 0; }
};

/// A primitive that a raycaster over bounds `B` can hold.
template <class B> class DynamicPrimitive : public GenericPrimitive {
  public:
    /// Expands for the raycaster that `data` points to.
    int load(ResourceManager*, int index, void* data) override {
        return expand(static_cast<DynamicRaycaster<B>*>(data), index);
    }

    /// Tells the raycaster that `data` points to, then collapses.
    int unload(ResourceManager*, int index, void* data) override {
        auto* const raycaster = static_cast<DynamicRaycaster<B>*>(data);
        raycaster->notifyUnload(index, this);
        return collapse(raycaster, index);
    }

    /// Writes the bounds.
    virtual void getBBox(B& box) = 0;
    /// Non-zero when a raycaster should `split` it rather than hold it whole.
    virtual int splittable() = 0;
    /// Writes the bounds of the parts below and above `pos` on axis `dim`.
    virtual void split(int dim, float pos, B& lowerBox, B& upperBox) = 0;
    /// What `load` does; 0: nothing was expanded.
    virtual int expand(DynamicRaycaster<B>*, int) { return 0; }
    /// What `unload` does after telling the raycaster.
    virtual int collapse(DynamicRaycaster<B>*, int) { return 0; }
};

/// A primitive that answers for lists of rays.
template <class B> class BunchPrimitive : public DynamicPrimitive<B> {
  public:
    /// Finds, for each of the `numLanes` rays that `lanes` names (0 to 63), the closest hit in
    /// [tMins[lane], min(tMaxs[position in the list], result.hitT[lane])] and enters it into
    /// `result`; true when there was at least one. Entries of other lanes are left as they were.
    ///
    /// `tMins` is indexed by lane, `tMaxs` by position in the list.
    virtual bool bunchIntersect(RayBunchExtParams const& params, RayBunchCommonResult& result,
                                double* tMins, double* tMaxs, unsigned char const* lanes,
                                unsigned long numLanes) = 0;
};

#pragma GCC diagnostic pop

} // namespace Kelpa
