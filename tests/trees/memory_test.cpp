// What trees say that they and their builds hold, against what the program's heap says.

#include "tests/support/movingscene.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HEAP_IS_ANOTHERS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HEAP_IS_ANOTHERS
#endif
#endif

namespace kelpatest {
namespace {

#if !defined(HEAP_IS_ANOTHERS)
/// Keeps the heap from mapping large pieces by themselves. Of a mapped one it counts all addresses,
/// with the 2 MiB of which most lie unused before an aligned beginning; whether a piece is mapped,
/// and how much of it is used, depends on where the system happened to put the heap.
class Unmapped {
  public:
    Unmapped() { mallopt(M_MMAP_MAX, 0); }
    Unmapped(Unmapped const&) = delete;
    Unmapped& operator=(Unmapped const&) = delete;
    ~Unmapped() { mallopt(M_MMAP_MAX, usualMost); }

  private:
    static constexpr int usualMost = 65536;
};

std::uint64_t heapBytes() {
    struct mallinfo2 const heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

/// Looks at the heap now and then while a build asks whether to go on.
class HeapWatch final : public ProgressCallback {
  public:
    std::int32_t getAbort() override {
        if (++polls % 1024 == 0)
            look();
        return 0;
    }
    void info(int, int, char const*, ...) override { look(); }

    std::uint64_t const before = heapBytes();
    std::uint64_t most = 0; ///< more than before

  private:
    void look() { most = std::max(most, heapBytes() - before); }
    std::uint64_t polls = 0;
};

/// Expects a figure to be right within a twentieth, and so many bytes for what is not counted.
void expectAbout(std::uint64_t told, std::uint64_t truth) {
    EXPECT_LT(static_cast<double>(told), 1.05 * static_cast<double>(truth) + 100000.0);
    EXPECT_GT(static_cast<double>(told), 0.95 * static_cast<double>(truth) - 100000.0);
}

template <class Scene, class Build> void expectTruth(Scene& scene, Build build) {
    auto& tree = scene.tree;
    HeapWatch watch;
    std::uint64_t const tableBytes = tree.getTotalMemUsage();
    build(&watch);
    std::uint64_t const resident = heapBytes() - watch.before + tableBytes;
    expectAbout(tree.getTotalMemUsage(), resident);
    expectAbout(tree.getPeakMemUsage(), std::max(watch.most, resident));
    EXPECT_GE(tree.getPeakMemUsage(), tree.getTotalMemUsage());
    EXPECT_EQ(tree.buildBytes, 0);
}

// Larger trees lie in slabs, of which the heap knows nothing.
TEST(Memory, IsToldAsTheHeapHasIt) {
    Unmapped const heap;
    for (int const isPacked : {1, 0}) {
        SCOPED_TRACE(isPacked);
        StillScene still(uniform.make(1, 65000));
        still.tree.packLeaves = isPacked;
        expectTruth(still, [&](ProgressCallback* watch) { still.tree.build(watch, nullptr); });
        MovingScene moving(moved(uniform.make(1, 65000), Way::scattering, 2));
        moving.tree.packSpheres = isPacked;
        expectTruth(moving, [&](ProgressCallback* watch) { moving.tree.build(watch, nullptr, 0); });
    }
}
#endif

} // namespace
} // namespace kelpatest
