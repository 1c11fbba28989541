#include "tool/framesource.h"

#include "tool/textvalues.h"

#include <fmt/format.h>

#include <filesystem>
#include <iterator>
#include <system_error>

namespace kelpatool {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view numberPlace = "{}";

/// The files that have a whole number where a pattern's file name has `{}`.
std::map<int, std::string> findSequence(std::string const& pattern) {
    fs::path const folder = fs::path(pattern).parent_path();
    std::string const name = fs::path(pattern).filename().string();
    std::size_t const place = name.find(numberPlace);
    std::string_view const before = std::string_view(name).substr(0, place);
    std::string_view const after = std::string_view(name).substr(place + numberPlace.size());

    std::map<int, std::string> files;
    std::error_code error;
    for (fs::directory_iterator at(folder.empty() ? fs::path(".") : folder, error), end;
         !error && at != end; at.increment(error)) {
        std::string const other = at->path().filename().string();
        std::string_view digits = other;
        if (digits.size() <= before.size() + after.size() || !digits.starts_with(before) ||
            !digits.ends_with(after))
            continue;
        digits.remove_prefix(before.size());
        digits.remove_suffix(after.size());
        int number = 0;
        bool const isNumber = digits.find_first_not_of("0123456789") == std::string_view::npos &&
                              parseNumber(digits, number);
        if (!isNumber)
            continue;
        auto const [known, isNew] = files.try_emplace(number, (folder / other).string());
        if (!isNew)
            throw InputError(fmt::format("{}: {} and {} have the same number", pattern,
                                         known->second, (folder / other).string()));
    }
    if (error)
        throw InputError(fmt::format("{}: cannot be listed: {}", folder.string(), error.message()));
    if (files.empty())
        throw InputError(fmt::format("{}: no file has a number in place of {{}}", pattern));
    return files;
}

bool isSequence(std::string const& path) {
    return fs::path(path).filename().string().find(numberPlace) != std::string::npos;
}

} // namespace

FrameSource::FrameSource(std::string const& given)
    : path(given), sequence(isSequence(given) ? findSequence(given) : std::map<int, std::string>{}),
      file(given) {
}

/// The number of a frame of the sequence.
int FrameSource::resolve(std::optional<int> frame) const {
    if (!frame)
        return sequence.begin()->first;
    int const count = static_cast<int>(sequence.size());
    if (*frame < 0 && *frame >= -count)
        return std::next(sequence.begin(), count + *frame)->first;
    if (!sequence.contains(*frame))
        throw NoSuchFrame(fmt::format("{}: no frame {}; it has {} from {} to {}", path, *frame,
                                      count, sequence.begin()->first, sequence.rbegin()->first));
    return *frame;
}

ParticleSet FrameSource::read(std::optional<int> frame, ReadOptions options) {
    if (sequence.empty()) {
        options.frame = frame.value_or(0);
        ParticleSet particles = file.read(options);
        particles.frame = options.frame < 0 ? particles.frameCount + options.frame : options.frame;
        particles.name = frame ? fmt::format("{} frame {}", path, particles.frame) : path;
        return particles;
    }
    int const number = resolve(frame);
    options.frame = 0;
    ParticleSet particles = readParticleFile(sequence.at(number), options);
    particles.name = sequence.at(number);
    particles.frame = number;
    particles.frameCount = static_cast<int>(sequence.size());
    return particles;
}

std::optional<ParticleSet> FrameSource::readAfter(int frame, ReadOptions options) {
    if (!sequence.empty()) {
        auto const next = sequence.upper_bound(frame);
        return next == sequence.end() ? std::nullopt
                                      : std::optional(read(next->first, std::move(options)));
    }
    try {
        return read(frame + 1, std::move(options));
    } catch (NoSuchFrame const&) {
        return std::nullopt;
    } catch (InputError const& error) {
        throw InputError(
            fmt::format("{} (read as the snapshot after frame {})", error.what(), frame));
    }
}

std::vector<int> FrameSource::framesIn(FrameRange range, ReadOptions options) {
    std::vector<int> frames;
    if (!sequence.empty()) {
        int const first = range.first < 0 ? resolve(range.first) : range.first;
        int const last = range.last < 0 ? resolve(range.last) : range.last;
        for (auto const& [number, name] : sequence)
            if (number >= first && number <= last && (number - first) % range.step == 0)
                frames.push_back(number);
    } else {
        if (range.first < 0 || range.last < 0) {
            int const count = read(-1, std::move(options)).frameCount;
            range.first += range.first < 0 ? count : 0;
            range.last += range.last < 0 ? count : 0;
        }
        // Kept wide: near the largest number a step would leave its type.
        for (long long frame = std::max(range.first, 0); frame <= range.last; frame += range.step)
            frames.push_back(static_cast<int>(frame));
    }
    if (frames.empty())
        throw NoSuchFrame(fmt::format("{}: none of its frames is in the range", path));
    return frames;
}

} // namespace kelpatool
