// What libFuzzer thinks up, as a file that readers open by its path.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace kelpafuzz {

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

} // namespace kelpafuzz
