// Asks the processor once which traversals it can run.
#include "kelpa/spheretree/kernelvariant.h"

#include <atomic>
#include <cassert>

namespace Kelpa {

namespace {

KernelVariant widestVariant() {
    for (KernelVariant const variant :
         {KernelVariant::avx512, KernelVariant::avx2, KernelVariant::sse2})
        if (hasVariant(variant))
            return variant;
    return KernelVariant::scalar;
}

// Set before any query of this library can run, and read by every one.
std::atomic<KernelVariant> variantInUse = widestVariant();

} // namespace

bool hasVariant(KernelVariant variant) {
    switch (variant) {
    case KernelVariant::scalar:
        return true;
#if defined(__x86_64__)
    case KernelVariant::sse2:
        return true;
    case KernelVariant::avx2:
        return __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("bmi2") != 0;
    case KernelVariant::avx512:
        return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512vl") != 0 &&
               __builtin_cpu_supports("avx512dq") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
               __builtin_cpu_supports("bmi2") != 0;
#endif
    default:
        return false;
    }
}

KernelVariant chosenVariant() {
    return variantInUse.load(std::memory_order_relaxed);
}

void chooseVariant(KernelVariant variant) {
    assert(hasVariant(variant));
    variantInUse.store(variant, std::memory_order_relaxed);
}

} // namespace Kelpa
