// Which of the forms that loops are compiled in run on this processor.
#pragma once

#include <vector>

namespace pipeline {

#if defined(__x86_64__)
/// Of the forms for any processor, for one with AVX2 and for one with AVX-512 (F, VL and DQ), those
/// that run here: the plainest first, the fastest last.
template <class Form>
std::vector<Form> formsForProcessor(Form const& any, Form const& avx2, Form const& avx512) {
    std::vector<Form> forms = {any};
    if (__builtin_cpu_supports("avx2") != 0)
        forms.push_back(avx2);
    if (__builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512vl") != 0 &&
        __builtin_cpu_supports("avx512dq") != 0)
        forms.push_back(avx512);
    return forms;
}
#endif

} // namespace pipeline
