// Feeds a reader what libFuzzer thinks up. One program per format, see CMakeLists.txt; any answer
// but particles or an InputError is a fault.

#include "pipeline/files/errors.h"
#include "pipeline/files/particlefile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

namespace {

/// A file in memory whose path can be opened, more than once.
class MemoryFile {
  public:
    MemoryFile(std::uint8_t const* bytes, std::size_t size)
        : descriptor(memfd_create("fuzz", MFD_CLOEXEC)) {
        if (descriptor < 0 || write(descriptor, bytes, size) != static_cast<ssize_t>(size))
            std::abort();
    }
    ~MemoryFile() { close(descriptor); }
    MemoryFile(MemoryFile const&) = delete;
    MemoryFile& operator=(MemoryFile const&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor); }

  private:
    int descriptor;
};

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
    MemoryFile const file(bytes, size);
    readFrame(file.path(), 0, true, "");
    readFrame(file.path(), -1, false, "");
    readFrame(file.path(), 0, false, "1"); // of most formats a reason to complain
    return 0;
}
