// Frames one after the other, within a file or across files.
#include "pipeline/files/framesource.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/numberplace.h"
#include "pipeline/files/textvalues.h"
#include "pipeline/files/together.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <limits>
#include <numeric>
#include <system_error>

namespace pipeline {

namespace {

namespace fs = std::filesystem;

/// Where the file name of a sequence has its number; of no length when it is the name of one file.
NumberPlace sequencePlace(std::string const& path) {
    std::error_code ignored;
    if (fs::exists(path, ignored))
        return {};
    constexpr std::string_view braces = "{}";
    std::size_t const at = path.rfind(braces);
    if (at != std::string::npos && path.find('/', at) == std::string::npos)
        return {at, braces.size()};
    return findNumberPlace(path);
}

/// The files that have a whole number at a place of a pattern's file name.
std::map<int, std::string> findSequence(std::string const& pattern, NumberPlace const& place) {
    fs::path const folder = fs::path(pattern).parent_path();
    std::string_view const path = pattern;
    std::string_view const after = path.substr(place.begin + place.length);
    std::string_view const before = path.substr(path.rfind('/', place.begin) + 1,
                                                place.begin - (path.rfind('/', place.begin) + 1));

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
        throw InputError(fmt::format("{}: no file has a number in place of {}", pattern,
                                     path.substr(place.begin, place.length)));
    return files;
}

std::map<int, std::string> filesOf(std::string const& path) {
    NumberPlace const place = sequencePlace(path);
    return place.length > 0 ? findSequence(path, place) : std::map<int, std::string>{};
}

} // namespace

std::vector<std::string> filesNamed(std::string const& path) {
    std::vector<std::string> files;
    for (auto const& [number, file] : filesOf(path))
        files.push_back(file);
    return files.empty() ? std::vector{path} : files;
}

std::optional<int> FrameNumbers::after(std::optional<int> frame) const {
    std::optional<int> next;
    for (auto const& [first, last, step] : ranges) {
        std::int64_t at = first; // wide: near the largest number a step would leave its type
        if (frame && *frame >= first)
            at += (static_cast<std::int64_t>(*frame) - first) / step * step + step;
        if (at <= last && (!next || at < *next))
            next = static_cast<int>(at);
    }
    return next;
}

std::uint64_t FrameNumbers::count() const {
    if (ranges.size() == 1) {
        auto const [first, last, step] = ranges[0];
        return static_cast<std::uint64_t>((static_cast<std::int64_t>(last) - first) / step + 1);
    }
    std::uint64_t frames = 0;
    for (auto frame = after(std::nullopt); frame; frame = after(frame))
        ++frames;
    return frames;
}

FrameSource::FrameSource(std::string const& given)
    : path(given), sequence(filesOf(given)), file(given) {
}

FrameSource::FrameSource(std::string const& given, std::vector<std::string> const& more)
    : FrameSource(given) {
    for (std::string const& other : more)
        others.push_back(std::make_unique<FrameSource>(other));
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

/// A range of the sequence, as it is counted from its start.
FrameRange FrameSource::resolve(FrameRange const& range) const {
    return {range.first < 0 ? resolve(range.first) : range.first,
            range.last < 0 ? resolve(range.last) : range.last, range.step};
}

ParticleSet FrameSource::read(std::optional<int> frame, ReadOptions const& options) {
    if (options.topology.empty())
        return readPlaces(frame, options);
    if (!topology)
        topology.emplace(options.topology, options.progress);
    ParticleSet particles = readPlaces(frame, topology->forTrajectory(options));
    topology->giveTo(particles, options);
    return particles;
}

/// The same as the files themselves tell it.
ParticleSet FrameSource::readPlaces(std::optional<int> frame, ReadOptions const& options) {
    if (others.empty())
        return readOne(frame, options);
    double read = 0.0; // files
    std::uint64_t particles = 0;
    ReadOptions ofOne = options;
    ofOne.rows = {}; // those of a share would not follow one another
    if (options.progress)
        ofOne.progress = [&](double fraction, std::uint64_t count) {
            options.progress((read + fraction) / static_cast<double>(1 + others.size()),
                             particles + count);
        };
    ParticleSet all = readOne(frame, ofOne);
    for (auto const& other : others) {
        ++read;
        particles = all.positions.size();
        append(all, other->readOne(frame, ofOne));
    }
    all.name += fmt::format(" and {} more", others.size());
    return all;
}

/// The same as the first file or sequence tells it.
ParticleSet FrameSource::readOne(std::optional<int> frame, ReadOptions options) {
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

std::optional<ParticleSet> FrameSource::readAfter(int frame, ReadOptions const& options) {
    if (!sequence.empty()) {
        auto const next = sequence.upper_bound(frame);
        if (next == sequence.end())
            return std::nullopt;
        ParticleSet particles = read(next->first, options);
        particles.steps = static_cast<double>(static_cast<std::int64_t>(next->first) - frame) /
                          static_cast<double>(leastStride());
        return particles;
    }
    try {
        return read(frame + 1, options);
    } catch (NoSuchFrame const&) {
        return std::nullopt;
    } catch (InputError const& error) {
        throw InputError(
            fmt::format("{} (read as the snapshot after frame {})", error.what(), frame),
            error.hint);
    }
}

FrameNumbers FrameSource::framesIn(std::vector<FrameRange> const& ranges,
                                   ReadOptions const& options) const {
    FrameNumbers frames(sequence.empty() ? framesInFile(ranges, options)
                                         : framesInSequence(ranges));
    if (frames.after(std::nullopt))
        return frames;
    throw NoSuchFrame(sequence.empty()
                          ? fmt::format("{}: none of its frames is in the range", path)
                          : fmt::format("{}: none of its frames, {} to {}, is in the range", path,
                                        sequence.begin()->first, sequence.rbegin()->first));
}

std::vector<FrameRange> FrameSource::framesInSequence(std::vector<FrameRange> const& ranges) const {
    std::vector<FrameRange> found;
    for (FrameRange const& range : ranges) {
        if (range.first == range.last) {
            int const number = resolve(range.first); // named by itself, it has to be there
            found.push_back({number, number, 1});
            continue;
        }
        auto const [first, last, step] = resolve(range);
        for (auto const& [number, name] : sequence)
            if (number >= first && number <= last && (number - first) % step == 0)
                found.push_back({number, number, 1});
    }
    return found;
}

std::vector<FrameRange> FrameSource::framesInFile(std::vector<FrameRange> ranges,
                                                  ReadOptions options) const {
    options.findOnly = true;
    auto const find = [this, &options](int frame) { // apart from `file`, which stays at its start
        options.frame = frame;
        return readParticleFile(path, options).frameCount;
    };
    int last = 0;
    std::optional<int> count;
    for (FrameRange& range : ranges) {
        bool const isOne = range.first == range.last;
        if (!count && (range.first < 0 || range.last < 0))
            count = find(isOne ? range.first : -1);
        range.first += range.first < 0 ? *count : 0;
        range.last += range.last < 0 ? *count : 0;
        if (isOne && range.first < 0)
            find(range.first - *count); // says how many there are
        range.first = std::max(range.first, 0);
        if (range.first <= range.last)
            last = std::max(last, range.last - (range.last - range.first) % range.step);
    }
    // What a pipe holds shows when it has been read.
    std::error_code ignored;
    if (last > 0 && !(count && last < *count) && fs::is_regular_file(path, ignored))
        find(last);
    return ranges;
}

std::int64_t FrameSource::leastStride() const {
    std::int64_t stride = std::numeric_limits<int>::max();
    for (auto at = std::next(sequence.begin()); at != sequence.end(); ++at)
        stride = std::min(stride, static_cast<std::int64_t>(at->first) - std::prev(at)->first);
    return stride;
}

std::vector<int> FrameSource::missingIn(std::vector<FrameRange> const& ranges) const {
    if (sequence.size() < 2)
        return {};
    constexpr std::size_t few = 8;
    std::vector<int> missing;
    std::int64_t const stride = leastStride();
    std::int64_t const begin = sequence.begin()->first; // wide: steps could leave their type
    for (FrameRange const& given : ranges) {
        FrameRange const range = resolve(given);
        // What is asked for and expected lies on two grids; they may have nothing in common.
        if ((range.first - begin) % std::gcd<std::int64_t>(range.step, stride) != 0)
            continue;
        bool const areAskedRarer = range.step >= stride;
        std::int64_t const step = areAskedRarer ? range.step : stride;
        std::int64_t const behind = ((begin - range.first) % stride + stride) % stride;
        std::int64_t frame = areAskedRarer ? range.first : range.first + behind;
        for (; frame <= range.last && missing.size() < few; frame += step)
            if ((frame - range.first) % range.step == 0 && (frame - begin) % stride == 0 &&
                !sequence.contains(static_cast<int>(frame)))
                missing.push_back(static_cast<int>(frame));
    }
    return missing;
}

} // namespace pipeline
