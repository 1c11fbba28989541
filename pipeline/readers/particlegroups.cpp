// Joins the columns of groups and sends rows.
#include "pipeline/readers/particlegroups.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <set>

namespace pipeline {

namespace {

constexpr std::size_t mostColumns = 1000;

/// Columns as all groups have them.
struct JointSource {
    ColumnSource const* first = nullptr; ///< of the first group that has it
    ScalarType type = ScalarType::float64;
    bool isSent = false;
    std::size_t offset = 0; ///< in a row

    std::size_t parts() const { return first->endings.size(); }
    std::size_t bytes() const { return parts() * scalarBytes(type); }
};

/// A type that holds the numbers of two, as well as any does.
ScalarType widerOf(ScalarType a, ScalarType b) {
    if (a == b)
        return a;
    if (isFloating(a) || isFloating(b))
        return ScalarType::float64;
    return ScalarType::int64;
}

bool isWanted(ColumnSource const& source, ReaderInput const& input) {
    if (input.wantsAll || input.wants(source.name))
        return true;
    return std::any_of(
        source.endings.begin(), source.endings.end(),
        [&](std::string const& ending) { return input.wants(source.name + ending); });
}

ColumnSource const* find(ParticleGroup const& group, JointSource const& joint) {
    for (ColumnSource const& source : group.columns)
        if (source.name == joint.first->name && source.endings == joint.first->endings)
            return &source;
    return nullptr;
}

/// The sources of all groups, each once, in the order in which they come.
std::vector<JointSource> joinSources(std::vector<ParticleGroup> const& groups,
                                     ReaderInput const& input) {
    std::vector<JointSource> joined;
    std::map<std::pair<std::string, std::vector<std::string>>, std::size_t> places;
    for (ParticleGroup const& group : groups)
        for (ColumnSource const& source : group.columns) {
            auto const [place, isNew] =
                places.emplace(std::pair(source.name, source.endings), joined.size());
            if (isNew)
                joined.push_back({&source, source.type, isWanted(source, input)});
            JointSource& joint = joined[place->second];
            joint.type = widerOf(joint.type, source.type);
        }
    return joined;
}

void sendColumns(JointSource const& joint, ReaderSender const& sender) {
    for (std::string const& ending : joint.first->endings) {
        std::string const name = joint.first->name + ending;
        if (!joint.isSent) {
            sender.send(ReaderMessage::absent, name);
            continue;
        }
        sender.column(joint.type, name, joint.first->typeName);
        if (!joint.first->names.empty())
            sender.names(joint.first->names);
    }
}

/// What a row has of a source that its group lacks.
void fill(JointSource const& joint, std::uint64_t count, char* to) {
    withType(joint.type, [&]<class Number>(Number value) {
        value = std::numeric_limits<Number>::quiet_NaN(); // 0 for whole numbers
        for (std::uint64_t i = 0; i < count * joint.parts(); ++i, to += sizeof value)
            std::memcpy(to, &value, sizeof value);
    });
}

void sendRows(ParticleGroup const& group, std::vector<JointSource> const& joined,
              std::size_t rowBytes, ReaderSender const& sender) {
    constexpr std::size_t bytesAtOnce = 4 * 1024 * 1024;
    std::uint64_t const rowsAtOnce = std::max<std::size_t>(1, bytesAtOnce / rowBytes);
    std::vector<char> rows;
    std::vector<char> numbers;
    for (std::uint64_t first = 0; first < group.count; first += rowsAtOnce) {
        std::uint64_t const count = std::min(rowsAtOnce, group.count - first);
        rows.resize(static_cast<std::size_t>(count) * rowBytes);
        for (JointSource const& joint : joined) {
            if (!joint.isSent)
                continue;
            std::size_t const bytes = joint.bytes();
            numbers.resize(static_cast<std::size_t>(count) * bytes);
            if (ColumnSource const* const source = find(group, joint); source != nullptr)
                source->read(first, count, joint.type, numbers.data());
            else
                fill(joint, count, numbers.data());
            for (std::size_t row = 0; row < count; ++row)
                std::memcpy(rows.data() + row * rowBytes + joint.offset,
                            numbers.data() + row * bytes, bytes);
        }
        sender.rows({rows.data(), rows.size()});
    }
}

} // namespace

std::vector<std::string> endingsOf(std::uint64_t parts) {
    std::vector<std::string> endings;
    for (std::uint64_t part = 0; part < std::min<std::uint64_t>(parts, mostColumns); ++part)
        endings.push_back(parts == 1   ? ""
                          : parts == 3 ? std::string(".") + "xyz"[part]
                                       : fmt::format(".{}", part + 1));
    return endings;
}

ColumnSource constantSource(std::string name, std::int64_t value) {
    ColumnSource source = constantSource(std::move(name), std::vector{static_cast<double>(value)});
    source.type = ScalarType::int32;
    source.typeName = "int32";
    return source;
}

ColumnSource constantSource(std::string name, std::vector<double> values) {
    auto const read = [values](std::uint64_t, std::uint64_t count, ScalarType as, char* to) {
        withType(as, [&]<class Number>(Number value) {
            for (std::uint64_t i = 0; i < count * values.size(); ++i, to += sizeof value) {
                value = static_cast<Number>(values[i % values.size()]);
                std::memcpy(to, &value, sizeof value);
            }
        });
    };
    return {std::move(name), endingsOf(values.size()), ScalarType::float64, "constant", read, {}};
}

void sendGroups(std::vector<ParticleGroup> const& groups, ReaderInput const& input,
                ReaderSender const& sender) {
    std::vector<JointSource> joined = joinSources(groups, input);
    std::uint64_t particles = 0;
    for (ParticleGroup const& group : groups)
        particles += group.count;
    sender.fact("particles", fmt::format("{}", particles));
    std::size_t rowBytes = 0;
    std::size_t columns = 0;
    for (JointSource& joint : joined) {
        columns += joint.isSent ? joint.parts() : 0;
        joint.isSent = joint.isSent && columns <= mostColumns;
        joint.offset = rowBytes;
        rowBytes += joint.isSent ? joint.bytes() : 0;
        sendColumns(joint, sender);
    }
    for (ParticleGroup const& group : groups)
        if (rowBytes > 0)
            sendRows(group, joined, rowBytes, sender);
}

} // namespace pipeline
