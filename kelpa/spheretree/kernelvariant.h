// Internal: for which processors the traversals exist, and which of them runs.
#pragma once

namespace Kelpa {

/// The kinds of processors that the traversals are compiled for, from the plainest to the widest.
/// All find the same hits, bit for bit.
enum class KernelVariant { scalar, sse2, avx2, avx512 };

inline constexpr int kernelVariants = 4;

/// The addresses of what the variants define under one name, each in the namespace of its own.
#if defined(__x86_64__)
#define KELPA_OF_ALL_VARIANTS(name)                                                                \
    { &scalar::name, &sse2::name, &avx2::name, &avx512::name }
#else
#define KELPA_OF_ALL_VARIANTS(name)                                                                \
    { &scalar::name }
#endif

/// Whether the compiler has made the variant and this processor runs it.
bool hasVariant(KernelVariant variant);

/// The variant that all queries use: the widest there is, unless a test has set another.
KernelVariant chosenVariant();

/// For tests: the variant that all queries use from now on; it must exist here.
void chooseVariant(KernelVariant variant);

} // namespace Kelpa
