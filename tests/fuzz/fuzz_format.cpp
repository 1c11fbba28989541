// Feeds a reader what libFuzzer thinks up. One program per format, see CMakeLists.txt; any answer
// but particles or an InputError is a fault.

#include "pipeline/files/errors.h"
#include "pipeline/files/particlefile.h"

#include "tests/fuzz/memoryfile.h"

namespace {

void readFrame(std::string const& path, int frame, bool summarise, std::string const& assembly) {
    pipeline::ReadOptions options;
    options.format = KELPA_FUZZ_FORMAT;
    options.frame = frame;
    options.summarise = summarise;
    options.assembly = assembly;
    try {
        pipeline::readParticleFile(path, options);
    } catch (pipeline::InputError const&) {
        // What most inputs deserve.
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* bytes, std::size_t size) {
    kelpafuzz::MemoryFile const file(bytes, size);
    readFrame(file.path(), 0, true, "");
    readFrame(file.path(), -1, false, "");
    readFrame(file.path(), 0, false, "1"); // of most formats a reason to complain
    return 0;
}
