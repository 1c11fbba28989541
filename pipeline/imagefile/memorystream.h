// An OpenEXR file in memory.
#pragma once

#include <ImfIO.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace pipeline {

/// What OpenEXR writes: its own files swallow a failure when they are closed, and all need to
/// seek, which a pipe cannot.
class MemoryStream : public Imf::OStream {
  public:
    MemoryStream() : OStream("memory") {}

    void write(char const* data, int count) override {
        auto const length = static_cast<std::size_t>(count);
        if (bytes.size() < position + length)
            bytes.resize(position + length);
        std::memcpy(bytes.data() + position, data, length);
        position += length;
    }
    std::uint64_t tellp() override { return position; }
    void seekp(std::uint64_t place) override { position = static_cast<std::size_t>(place); }

    /// Hands all bytes to `sink`, some at a time.
    template <class Sink> void passTo(Sink const& sink) const {
        constexpr std::size_t bytesAtOnce = 1 << 20;
        std::string_view const all = bytes;
        for (std::size_t at = 0; at < all.size(); at += bytesAtOnce)
            sink(all.substr(at, bytesAtOnce));
    }

  private:
    std::string bytes;
    std::size_t position = 0;
};

} // namespace pipeline
