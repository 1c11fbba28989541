// The part of the Python module that is not Python: arrays in, arrays out. What callers give has
// been checked and converted by the modules beside it, which also say what everything means.

#include "python/native/looks.h"
#include "python/native/pictures.h"
#include "python/native/tree.h"
#ifdef KELPA_FILES
#include "python/native/files.h"
#endif
#ifdef KELPA_VIEW
#include "python/native/views.h"
#endif

#include <pybind11/pybind11.h>

namespace kelpapython {

PYBIND11_MODULE(_native, module) {
    module.doc() = "Trees over particles, their files and pictures; use the module kelpa instead.";
    module.attr("missing") = KELPA_PIPELINE_LACKS; // what reading and writing files lack
    defineLooks(module);
    definePictures(module);
    defineTree(module);
#ifdef KELPA_FILES
    defineFiles(module);
#endif
#ifdef KELPA_VIEW
    defineViews(module);
#endif
}

} // namespace kelpapython
