// One class for each library that unpacks.
#include "pipeline/files/unpacking.h"

#include <zlib.h>
#ifdef KELPA_ZSTD
#include <zstd.h>
#endif
#ifdef KELPA_LZMA
#include <lzma.h>
#endif
#ifdef KELPA_BZIP2
#include <bzlib.h>
#endif

#include <algorithm>
#include <limits>
#include <new>
#include <stdexcept>

namespace pipeline {

namespace {

/// As many bytes as a library's count of 32 bits can tell.
unsigned int countOf(std::size_t bytes) {
    return static_cast<unsigned int>(
        std::min<std::size_t>(bytes, std::numeric_limits<unsigned int>::max()));
}

[[noreturn]] void failDamaged(char const* reason = nullptr) {
    throw std::runtime_error(reason != nullptr ? reason : "not a stream");
}

class Gunzip final : public Unpacking {
  public:
    Gunzip() {
        if (inflateInit2(&stream, 15 + 16) != Z_OK) // largest window, gzip wrapping only
            throw std::bad_alloc();
    }
    ~Gunzip() override { inflateEnd(&stream); }
    Gunzip(Gunzip const&) = delete;
    Gunzip& operator=(Gunzip const&) = delete;

    void begin() override { inflateReset(&stream); }
    bool unpack(std::span<char const>& in, std::span<char>& out) override {
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
        stream.avail_in = countOf(in.size());
        stream.next_out = reinterpret_cast<Bytef*>(out.data());
        stream.avail_out = countOf(out.size());
        uInt const inBefore = stream.avail_in;
        uInt const outBefore = stream.avail_out;
        int const result = inflate(&stream, Z_NO_FLUSH);
        in = in.subspan(inBefore - stream.avail_in);
        out = out.subspan(outBefore - stream.avail_out);
        if (result == Z_MEM_ERROR)
            throw std::bad_alloc();
        if (result != Z_OK && result != Z_BUF_ERROR && result != Z_STREAM_END)
            failDamaged(stream.msg);
        return result == Z_STREAM_END;
    }

  private:
    z_stream stream{};
};

#ifdef KELPA_ZSTD
class Unzstd final : public Unpacking {
  public:
    Unzstd() : stream(ZSTD_createDStream()) {
        if (stream == nullptr)
            throw std::bad_alloc();
    }
    ~Unzstd() override { ZSTD_freeDStream(stream); }
    Unzstd(Unzstd const&) = delete;
    Unzstd& operator=(Unzstd const&) = delete;

    void begin() override { ZSTD_initDStream(stream); }
    bool unpack(std::span<char const>& in, std::span<char>& out) override {
        ZSTD_inBuffer from{in.data(), in.size(), 0};
        ZSTD_outBuffer to{out.data(), out.size(), 0};
        std::size_t const result = ZSTD_decompressStream(stream, &to, &from);
        in = in.subspan(from.pos);
        out = out.subspan(to.pos);
        if (ZSTD_isError(result) != 0)
            failDamaged(ZSTD_getErrorName(result));
        return result == 0;
    }

  private:
    ZSTD_DStream* stream;
};
#endif

#ifdef KELPA_LZMA
class Unxz final : public Unpacking {
  public:
    ~Unxz() override { lzma_end(&stream); }

    void begin() override {
        constexpr std::uint64_t mostMemory =
            256 * 1024 * 1024; // that of the highest preset four times
        if (lzma_stream_decoder(&stream, mostMemory, 0) != LZMA_OK)
            throw std::bad_alloc();
    }
    bool unpack(std::span<char const>& in, std::span<char>& out) override {
        stream.next_in = reinterpret_cast<std::uint8_t const*>(in.data());
        stream.avail_in = in.size();
        stream.next_out = reinterpret_cast<std::uint8_t*>(out.data());
        stream.avail_out = out.size();
        lzma_ret const result = lzma_code(&stream, LZMA_RUN);
        in = in.subspan(in.size() - stream.avail_in);
        out = out.subspan(out.size() - stream.avail_out);
        if (result == LZMA_MEM_ERROR)
            throw std::bad_alloc();
        if (result == LZMA_MEMLIMIT_ERROR)
            failDamaged("it wants far more memory than files usually do");
        if (result != LZMA_OK && result != LZMA_STREAM_END && result != LZMA_BUF_ERROR)
            failDamaged();
        return result == LZMA_STREAM_END;
    }

  private:
    lzma_stream stream = LZMA_STREAM_INIT;
};
#endif

#ifdef KELPA_BZIP2
class Bunzip2 final : public Unpacking {
  public:
    ~Bunzip2() override { BZ2_bzDecompressEnd(&stream); }

    void begin() override {
        BZ2_bzDecompressEnd(&stream); // of the stream before, if any
        stream = {};
        if (BZ2_bzDecompressInit(&stream, 0, 0) != BZ_OK)
            throw std::bad_alloc();
    }
    bool unpack(std::span<char const>& in, std::span<char>& out) override {
        stream.next_in = const_cast<char*>(in.data());
        stream.avail_in = countOf(in.size());
        stream.next_out = out.data();
        stream.avail_out = countOf(out.size());
        unsigned int const inBefore = stream.avail_in;
        unsigned int const outBefore = stream.avail_out;
        int const result = BZ2_bzDecompress(&stream);
        in = in.subspan(inBefore - stream.avail_in);
        out = out.subspan(outBefore - stream.avail_out);
        if (result == BZ_MEM_ERROR)
            throw std::bad_alloc();
        if (result != BZ_OK && result != BZ_STREAM_END)
            failDamaged();
        return result == BZ_STREAM_END;
    }

  private:
    bz_stream stream{};
};
#endif

template <class Kind> std::unique_ptr<Unpacking> make() {
    return std::make_unique<Kind>();
}

#ifdef KELPA_ZSTD
constexpr auto makeUnzstd = make<Unzstd>;
#else
constexpr std::unique_ptr<Unpacking> (*makeUnzstd)() = nullptr;
#endif
#ifdef KELPA_LZMA
constexpr auto makeUnxz = make<Unxz>;
#else
constexpr std::unique_ptr<Unpacking> (*makeUnxz)() = nullptr;
#endif
#ifdef KELPA_BZIP2
constexpr auto makeBunzip2 = make<Bunzip2>;
#else
constexpr std::unique_ptr<Unpacking> (*makeBunzip2)() = nullptr;
#endif

constexpr Packing packings[] = {
    {"gzip", ".gz", "\x1f\x8b", make<Gunzip>},
    {"zstd", ".zst", "\x28\xb5\x2f\xfd", makeUnzstd},
    {"xz", ".xz", {"\xfd\x37zXZ\0", 6}, makeUnxz},
    {"bzip2", ".bz2", "BZh?1AY&SY", makeBunzip2},
};

} // namespace

Packing const* packingOf(std::string_view head) {
    auto const startsAs = [head](std::string_view magic) {
        return head.size() >= magic.size() &&
               std::equal(magic.begin(), magic.end(), head.begin(),
                          [](char wanted, char found) { return wanted == '?' || wanted == found; });
    };
    for (Packing const& packing : packings)
        if (startsAs(packing.magic))
            return &packing;
    return nullptr;
}

std::string_view withoutPacking(std::string_view path) {
    for (Packing const& packing : packings)
        if (path.ends_with(packing.suffix))
            path.remove_suffix(packing.suffix.size());
    return path;
}

} // namespace pipeline
