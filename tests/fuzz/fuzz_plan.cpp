// Feeds the reader of cameras and plans what libFuzzer thinks up, and looks through what comes out.
#include "pipeline/files/errors.h"
#include "pipeline/picture/filmplan.h"

#include "tests/fuzz/memoryfile.h"

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* bytes, std::size_t size) {
    kelpafuzz::MemoryFile const file(bytes, size);
    try {
        pipeline::FilmPlan const plan = pipeline::readPlan(file.path());
        for (double const frame : {-1e9, 0.0, 0.5, 7.0, 1e9}) {
            pipeline::Sight const sight =
                sightOf(plan.camera.at(frame), 64, 48, 1.0, pipeline::Vec{1.0, 2.0, 3.0});
            if (!std::isfinite(sight.camera.eye.x + sight.camera.tanHalfHeight))
                std::abort();
        }
        // What it tells of itself is read again.
        std::string const text = textOf(plan);
        kelpafuzz::MemoryFile const again(reinterpret_cast<std::uint8_t const*>(text.data()),
                                          text.size());
        if (textOf(pipeline::readPlan(again.path())) != text)
            std::abort();
    } catch (pipeline::InputError const&) {
        // What most inputs deserve.
    }
    return 0;
}
