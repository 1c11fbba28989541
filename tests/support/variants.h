// Every kind of traversal that this processor can run, one after the other.
#pragma once

#include "kelpa/spheretree/kernelvariant.h"

#include <gtest/gtest.h>

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

} // namespace kelpatest
