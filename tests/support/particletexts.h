// Texts of particle files, and their bytes.
#pragma once

#include "tests/support/particlefolder.h"

#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <limits>

namespace kelpatest {

constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

inline std::string gzip(std::string const& bytes) {
    z_stream stream{};
    deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    std::string packed(deflateBound(&stream, bytes.size()) + 64, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

inline std::string ascii(std::string const& properties, std::size_t count,
                         std::string const& rows) {
    std::string header = "ply\nformat ascii 1.0\nelement vertex " + std::to_string(count) + "\n";
    std::string words = properties;
    for (std::size_t end = 0; !words.empty(); words.erase(0, end + 1)) {
        end = std::min(words.find(' '), words.size() - 1);
        header += "property float " + words.substr(0, words.find(' ')) + "\n";
    }
    return header + "end_header\n" + rows;
}

/// Equal to the bit, so that NaN equals itself and the two zeros differ.
template <class Value> bool sameBits(std::vector<Value> const& a, std::vector<Value> const& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(Value)) == 0;
}

/// Writes numbers as a PLY file of one encoding would hold them.
struct Encoder {
    bool isText;
    bool isBig;
    std::string bytes{};

    template <class Number> Encoder& add(Number number) {
        if (isText) {
            bytes += std::to_string(number) + " ";
            return *this;
        }
        char raw[sizeof number];
        std::memcpy(raw, &number, sizeof number);
        if (isBig != (std::endian::native == std::endian::big))
            std::reverse(std::begin(raw), std::end(raw));
        bytes.append(raw, sizeof raw);
        return *this;
    }
    Encoder& endRow() {
        bytes += isText ? "\n" : "";
        return *this;
    }
};

} // namespace kelpatest
