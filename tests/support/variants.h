// Every kind of traversal that this processor can run, one after the other.
#pragma once

#include "kelpa/spheretree/kernelvariant.h"

#include "tests/support/scene.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

namespace kelpatest {

/// Calls `test` with the traversals for each kind of processor that this one can run, the one that
/// is used without tests last.
template <class Test> void forEachVariant(Test const& test) {
    using Kelpa::KernelVariant;
    for (auto const variant :
         {KernelVariant::scalar, KernelVariant::sse2, KernelVariant::avx2, KernelVariant::avx512}) {
        if (!Kelpa::hasVariant(variant))
            continue;
        SCOPED_TRACE(static_cast<int>(variant));
        Kelpa::chooseVariant(variant);
        test();
    }
}

/// Expects each of these traversals to give each ray its answer.
template <class AnyScene>
void expectEveryVariantAnswers(AnyScene& scene, std::vector<RSRay> const& rays,
                               std::vector<RSRay> const& answers) {
    forEachVariant([&] {
        int different = 0;
        for (std::size_t i = 0; i < rays.size(); ++i) {
            RSRay ray = rays[i];
            scene.owner.intersect(ray);
            different += !isSameHit(ray, answers[i]);
        }
        EXPECT_EQ(different, 0);
    });
}

} // namespace kelpatest
