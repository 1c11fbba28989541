#include "pipeline/files/particlefile.h"

#include "pipeline/files/columns.h"
#include "pipeline/files/inputfile.h"
#include "pipeline/files/srgb.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

// From a path to a particle set: which format it is, and how the columns that all formats share
// become positions, radii, colours and so on.

namespace kelpatool {

namespace {

// Formats ------------------------------------------------------------------------------------

/// A format that can be told from others. To add one, write `read` and a line in `formats`.
struct FileFormat {
    std::string_view name;     ///< for `--format`; empty when it cannot be read
    std::string_view title;    ///< for messages
    std::string_view suffixes; ///< tie-break when the content does not tell, between blanks
    bool (*recognise)(std::string_view head);                         ///< sees the first KiB
    ParticleSet (*read)(InputFile& file, ReadOptions const& options); ///< null: not read
    std::string_view wayOn{};   ///< what to do with a file that is not read
    bool hasAssemblies = false; ///< whether `ReadOptions::assembly` makes sense

    bool hasSuffixOf(std::string_view path) const {
        std::string_view list = suffixes;
        for (std::string_view suffix = nextWord(list); !suffix.empty(); suffix = nextWord(list))
            if (path.ends_with(suffix))
                return true;
        return false;
    }
};

template <char... magic> bool startsWith(std::string_view head) {
    constexpr char bytes[] = {magic...};
    return head.starts_with(std::string_view(bytes, sizeof bytes));
}

bool isPly(std::string_view head) {
    return startsWith<'p', 'l', 'y'>(head) && head.size() > 3 &&
           (head[3] == '\n' || head[3] == '\r');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// XYZ starts with a line that holds one whole number and nothing else.
bool isXyz(std::string_view head) {
    std::string_view line = head.substr(0, head.find('\n'));
    std::string_view const count = nextWord(line);
    return line.size() < head.size() && !count.empty() && nextWord(line).empty() &&
           std::all_of(count.begin(), count.end(), isDigit);
}

/// GRO has a title, a line with a whole number, and rows in which a number ends in column 5 and
/// another in column 20, and decimal points follow at the same distance from each other.
bool isGro(std::string_view head) {
    auto const cutLine = [&head] {
        std::string_view const line = head.substr(0, head.find('\n'));
        head.remove_prefix(std::min(head.size(), line.size() + 1));
        return line;
    };
    cutLine();
    std::string_view count = cutLine();
    std::string_view const row = cutLine();
    std::uint64_t number = 0;
    if (!parseNumber(nextWord(count), number) || !nextWord(count).empty() || row.size() < 24)
        return false;
    std::size_t const first = row.find('.', 20);
    std::size_t const second = row.find('.', first + 1);
    bool const hasPoints = first != std::string_view::npos && second != std::string_view::npos &&
                           row.find('.', second + 1) == 2 * second - first;
    return hasPoints && isDigit(row[4]) && isDigit(row[19]);
}

bool isPdb(std::string_view head) {
    constexpr std::string_view records[] = {"HEADER ", "ATOM  ",  "HETATM", "CRYST1",
                                            "REMARK ", "MODEL  ", "COMPND "};
    return std::any_of(std::begin(records), std::end(records),
                       [&](std::string_view record) { return head.starts_with(record); });
}

/// CIF starts with a block's name, behind comments and empty lines.
bool isMmCif(std::string_view head) {
    for (;;) {
        std::size_t const start = head.find_first_not_of(" \t\r\n");
        head.remove_prefix(std::min(head.size(), start));
        if (!head.starts_with('#'))
            return head.starts_with("data_");
        head.remove_prefix(std::min(head.size(), head.find('\n')));
    }
}

constexpr std::string_view newBgeo =
    "only classic BGEO (version 5) is read. Export as classic or PLY";

// In the order in which they are asked whether they recognise a file.
constexpr FileFormat formats[] = {
    {"ply", "PLY", ".ply", isPly, readPly},
    {"gro", "GRO", ".gro", isGro, readGro}, // before XYZ: its title may be a whole number
    {"xyz", "XYZ", ".xyz .extxyz", isXyz, readXyz},
    {"lammps", "LAMMPS dump", ".dump .lammpstrj", startsWith<'I', 'T', 'E', 'M', ':'>, readLammps},
    {"bgeo", "classic BGEO", ".bgeo", startsWith<'B', 'g', 'e', 'o', 'V'>, readBgeo},
    {"", "the JSON BGEO of newer Houdini", "", startsWith<0x7f, 'N', 'S', 'J'>, nullptr, newBgeo},
    {"", "the packed BGEO of newer Houdini", ".bgeo.sc", startsWith<'s', 'c', 'f', '1'>, nullptr,
     newBgeo},
    {"pdb", "PDB", ".pdb .ent", isPdb, readPdb, {}, true},
    {"mmcif", "mmCIF", ".cif .mmcif", isMmCif, readMmCif, {}, true},
#ifdef KELPA_OPENVDB
    {"vdb", "OpenVDB points", ".vdb", startsWith<' ', 'B', 'D', 'V'>, readVdb},
#else
    {"", "OpenVDB", ".vdb", startsWith<' ', 'B', 'D', 'V'>, nullptr,
     "this kelpa was built without it. Build it again where OpenVDB is found (libopenvdb-dev), or "
     "export as PLY"},
#endif
};

std::vector<std::string_view> allFormats(std::string_view FileFormat::*text) {
    std::vector<std::string_view> names;
    for (FileFormat const& format : formats)
        if (format.read != nullptr)
            names.push_back(format.*text);
    return names;
}

/// What can be read, as a list that ends in "and" or the like: "PLY, XYZ and GRO".
std::string listFormats(std::string_view FileFormat::*text, std::string_view lastLink) {
    std::vector<std::string_view> names = allFormats(text);
    std::string_view const last = names.back();
    names.pop_back();
    return fmt::format("{} {} {}", fmt::join(names, ", "), lastLink, last);
}

/// What `--format` asks for, else what the content says, else the suffix (".gz" aside).
FileFormat const& findFormat(InputFile& file, std::string const& wanted) {
    if (!wanted.empty()) {
        for (FileFormat const& format : formats)
            if (format.name == wanted)
                return format;
        file.fail("no format {}; {} can be read", quoted(wanted),
                  listFormats(&FileFormat::name, "and"));
    }
    constexpr std::size_t longestMagic = 1024;
    std::string_view const head = file.peek(longestMagic);
    for (FileFormat const& format : formats)
        if (format.recognise(head))
            return format;
    std::string_view path = file.path();
    if (path.ends_with(".gz"))
        path.remove_suffix(3);
    for (FileFormat const& format : formats)
        if (format.hasSuffixOf(path))
            return format;
    file.fail("starts with {}, which is neither {}; if it is one of them, name it with --format",
              quoted(head.substr(0, std::min<std::size_t>(head.find_first_of("\r\n"), 40))),
              listFormats(&FileFormat::title, "nor"));
}

// Which column means what ----------------------------------------------------------------------

struct RadiusName {
    std::string_view name;
    bool aloneOnly = false; ///< not if there are columns `g` or `b`: then it is a colour
    bool isDiameter = false;
};

constexpr RadiusName radiusNames[] = {
    {"radius"},
    {"pscale"},
    {"psz"},
    {.name = "r", .aloneOnly = true},
    {.name = "diameter", .isDiameter = true},
    {.name = "width", .isDiameter = true},
    {.name = "widths", .isDiameter = true},
};

/// Finds columns by name and collects what they are used for.
struct UseChooser {
    InputFile const& file;
    std::vector<Column> const& columns;
    ColumnNames const& names;
    std::vector<ColumnUse> uses{};

    std::size_t find(std::string_view name) const {
        auto const found = std::find_if(columns.begin(), columns.end(),
                                        [&](Column const& column) { return column.name == name; });
        return static_cast<std::size_t>(found - columns.begin());
    }
    bool has(std::string_view name) const { return find(name) < columns.size(); }

    /// The same for a column that has to be there.
    std::size_t require(std::string_view name) const {
        std::size_t const column = find(name);
        if (column < columns.size())
            return column;
        std::string present;
        for (Column const& other : columns)
            present += " " + other.name;
        file.fail("no {} {}; it has{}", names.word, quoted(name),
                  present.empty() ? " none" : present);
    }

    /// Uses the first of several vectors whose three columns are there; says which, if any.
    std::string chooseVector(Target target, std::span<VectorColumns const> choices) {
        for (VectorColumns const& choice : choices) {
            if (!has(choice.names[0]) || !has(choice.names[1]) || !has(choice.names[2]))
                continue;
            for (std::size_t axis = 0; axis < 3; ++axis)
                uses.push_back({find(choice.names[axis]), target, axis});
            return std::string(choice.source);
        }
        return {};
    }

    /// Keeps every column of the file that nothing uses so far.
    void keepTheRest(std::vector<Attribute>& attributes) {
        std::vector<bool> isUsed(columns.size(), false);
        for (ColumnUse const& use : uses)
            isUsed[use.column] = true;
        for (std::size_t column = 0; column < columns.size(); ++column) {
            if (isUsed[column] || columns[column].isDerived)
                continue;
            uses.push_back({column, Target::attribute, attributes.size()});
            attributes.push_back({columns[column].name, {}});
        }
    }

    std::string useRadius(std::string_view name) {
        bool const halved = std::any_of(
            std::begin(radiusNames), std::end(radiusNames),
            [&](RadiusName const& radius) { return radius.isDiameter && radius.name == name; });
        uses.push_back({require(name), Target::radius, 0, halved ? 0.5F : 1.0F});
        return std::string(name) + (halved ? " / 2" : "");
    }

    std::string chooseRadius() {
        bool const rIsColor = has("g") || has("b");
        for (RadiusName const& radius : radiusNames)
            if (has(radius.name) && !(radius.aloneOnly && rIsColor))
                return useRadius(radius.name);
        return {};
    }
};

// Conversion -----------------------------------------------------------------------------------

template <class Operation> void withType(ScalarType type, Operation operation) {
    switch (type) {
    case ScalarType::int8:
        return operation(std::int8_t{});
    case ScalarType::uint8:
        return operation(std::uint8_t{});
    case ScalarType::int16:
        return operation(std::int16_t{});
    case ScalarType::uint16:
        return operation(std::uint16_t{});
    case ScalarType::int32:
        return operation(std::int32_t{});
    case ScalarType::uint32:
        return operation(std::uint32_t{});
    case ScalarType::int64:
        return operation(std::int64_t{});
    case ScalarType::uint64:
        return operation(std::uint64_t{});
    case ScalarType::float32:
        return operation(float{});
    case ScalarType::float64:
        return operation(double{});
    }
}

/// A whole number for an id; NaN and what no 64-bit number can hold become -1.
template <class Number> std::int64_t idOf(Number value) {
    if constexpr (std::is_floating_point_v<Number>) {
        constexpr Number limit = 9223372036854775808.0; // 2^63, exact in both types
        return value >= -limit && value < limit ? static_cast<std::int64_t>(value) : -1;
    } else {
        return static_cast<std::int64_t>(value);
    }
}

/// An 8-bit sRGB code as linear light; what lies outside, NaN too, becomes the nearest end.
float linearOfNumber(double code) {
    double const clamped = code > 0.0 ? (code < 255.0 ? code : 255.0) : 0.0;
    return linearOfCode()[static_cast<std::size_t>(clamped)];
}

std::uint8_t elementOf(double number) {
    return number >= 1.0 && number < 119.0 ? static_cast<std::uint8_t>(number) : std::uint8_t{0};
}

/// One column through `convert`: numbers at `from`, every `fromStep` bytes, become results at `to`,
/// every `toStep` bytes.
template <class Result, class Convert>
void convertColumn(ScalarType type, char const* from, std::size_t fromStep, std::size_t count,
                   void* to, std::size_t toStep, Convert convert) {
    withType(type, [&]<class Number>(Number) {
        char const* source = from;
        char* target = static_cast<char*>(to);
        for (std::size_t row = 0; row < count; ++row) {
            Number number;
            std::memcpy(&number, source, sizeof number);
            Result const result = convert(number);
            std::memcpy(target, &result, sizeof result);
            source += fromStep;
            target += toStep;
        }
    });
}

template <std::size_t bytes> void reverseColumn(char* at, std::size_t step, std::size_t count) {
    for (std::size_t row = 0; row < count; ++row, at += step)
        std::reverse(at, at + bytes);
}

void reverseColumn(std::size_t bytes, char* at, std::size_t step, std::size_t count) {
    if (bytes == 2)
        reverseColumn<2>(at, step, count);
    else if (bytes == 4)
        reverseColumn<4>(at, step, count);
    else if (bytes == 8)
        reverseColumn<8>(at, step, count);
}

} // namespace

std::string readableFormats() {
    return listFormats(&FileFormat::title, "and");
}

std::string formatNames() {
    return fmt::format("{}", fmt::join(allFormats(&FileFormat::name), "|"));
}

ParticleSet readParticleFile(std::string const& path, ReadOptions const& options) {
    return ParticleFile(path).read(options);
}

struct ParticleFile::Open {
    InputFile file;
    FileFormat const& format;

    Open(std::string const& path, ReadOptions const& options)
        : file(path, options.progress), format(findFormat(file, options.format)) {}
};

ParticleFile::ParticleFile(std::string filePath) : path(std::move(filePath)) {
}

ParticleFile::~ParticleFile() = default;

ParticleSet ParticleFile::read(ReadOptions const& options) {
    // Readers of many frames count those behind them, and can go on; others start again.
    bool const goesOn = open && open->file.frames > 0 && options.frame >= open->file.frames;
    std::unique_ptr<Open> current =
        goesOn ? std::move(open) : std::make_unique<Open>(path, options);
    InputFile& file = current->file;
    file.reportTo(options.progress);
    FileFormat const& format = current->format;
    if (format.read == nullptr)
        file.fail("this is {}; {}", format.title,
                  format.wayOn.empty() ? "it is not read. Export or convert it to PLY"
                                       : format.wayOn);
    if (!options.assembly.empty() && !format.hasAssemblies)
        file.fail("{} has no assemblies; --assembly is for PDB and mmCIF", format.title);
    try {
        ParticleSet particles = format.read(file, options);
        if (file.isGzip())
            particles.format += ", gzip";
        open = std::move(current);
        return particles;
    } catch (InputError const&) {
        file.verifyChecksum(); // damaged gzip data is the better reason for what looks odd
        throw;
    }
}

ScalarType storedFromText(std::string_view name, ScalarType declared) {
    if (name == "id")
        return ScalarType::int64; // beyond 2^53 a double would merge neighbours
    return declared == ScalarType::float32 ? ScalarType::float32 : ScalarType::float64;
}

bool storeWord(Column const& column, std::string_view word, char* row) {
    auto const store = [&](auto number) {
        std::memcpy(row + column.offset, &number, sizeof number);
        return true;
    };
    float single = 0.0F;
    if (column.stored == ScalarType::float32)
        return parseNumber(word, single) && store(single);
    std::int64_t whole = 0;
    if (column.stored == ScalarType::int64 && parseNumber(word, whole))
        return store(whole);
    double number = 0.0;
    if (!parseNumber(word, number))
        return false;
    return column.stored == ScalarType::int64 ? store(idOf(number)) : store(number);
}

std::vector<ColumnUse> chooseUses(InputFile const& file, std::vector<Column> const& columns,
                                  ColumnNames const& names, ReadOptions const& options,
                                  ParticleSet& particles) {
    UseChooser chooser{file, columns, names};
    if (chooser.chooseVector(Target::position, names.positions).empty())
        for (std::string_view const name : names.positions.back().names)
            chooser.require(name);
    particles.radiusSource =
        options.radiusFrom.empty() ? chooser.chooseRadius() : chooser.useRadius(options.radiusFrom);
    particles.colorSource = chooser.chooseVector(Target::color, names.colors);
    chooser.chooseVector(Target::velocity, names.velocities);
    chooser.chooseVector(Target::image, names.images);
    if (chooser.has("id"))
        chooser.uses.push_back({chooser.find("id"), Target::id});
    if (chooser.has(names.element))
        chooser.uses.push_back({chooser.find(names.element), Target::element});
    if (chooser.has(names.type))
        chooser.uses.push_back({chooser.find(names.type), Target::type});
    for (std::string const& name : options.attributes) {
        chooser.uses.push_back(
            {chooser.require(name), Target::attribute, particles.attributes.size()});
        particles.attributes.push_back({name, {}});
    }
    if (options.allAttributes)
        chooser.keepTheRest(particles.attributes);
    return std::move(chooser.uses);
}

RowConverter::RowConverter(ParticleSet& set, std::vector<Column> rowColumns,
                           std::vector<ColumnUse> columnUses, bool wantsSummary)
    : particles(set), columns(std::move(rowColumns)), uses(std::move(columnUses)) {
    if (!wantsSummary)
        return;
    for (Column const& column : columns)
        if (!column.isDerived)
            particles.columns.push_back({column.name, column.typeName});
    finiteCount.resize(particles.columns.size());
}

template <class Operation> void RowConverter::forEachArray(Operation operation) {
    for (ColumnUse const& use : uses) {
        switch (use.target) {
        case Target::position:
            operation(particles.positions);
            break;
        case Target::radius:
            operation(particles.radii);
            break;
        case Target::color:
            operation(particles.colors);
            break;
        case Target::velocity:
            operation(particles.velocities);
            break;
        case Target::image:
            operation(particles.images);
            break;
        case Target::id:
            operation(particles.ids);
            break;
        case Target::element:
            operation(particles.elements);
            break;
        case Target::type:
            operation(particles.types);
            break;
        case Target::attribute:
            operation(particles.attributes[use.part].values);
            break;
        }
    }
}

void RowConverter::reserve(std::size_t count) {
    forEachArray([=](auto& array) { array.reserve(count); });
}

void RowConverter::append(char const* rows, std::size_t count, std::size_t rowBytes,
                          bool swapBytes) {
    if (swapBytes) {
        swapped.assign(rows, rows + count * rowBytes);
        for (Column const& column : columns)
            reverseColumn(scalarBytes(column.stored), swapped.data() + column.offset, rowBytes,
                          count);
        rows = swapped.data();
    }
    forEachArray([=, this](auto& array) { array.resize(converted + count); });
    for (ColumnUse const& use : uses)
        convert(use, rows, count, rowBytes);
    for (std::size_t column = 0; column < finiteCount.size(); ++column)
        summarise(column, rows, count, rowBytes);
    converted += count;
}

void RowConverter::convert(ColumnUse const& use, char const* rows, std::size_t count,
                           std::size_t rowBytes) {
    Column const& column = columns[use.column];
    char const* const from = rows + column.offset;
    auto const asIs = [](auto number) { return static_cast<float>(number); };
    auto const toVectors = [&](std::vector<Kelpa::Vector>& array, auto conversion) {
        convertColumn<float>(column.stored, from, rowBytes, count,
                             &array[converted][static_cast<int>(use.part)], sizeof(Kelpa::Vector),
                             conversion);
    };
    if (count == 0)
        return;
    switch (use.target) {
    case Target::position:
        return toVectors(particles.positions, asIs);
    case Target::velocity:
        return toVectors(particles.velocities, asIs);
    case Target::image:
        return toVectors(particles.images, asIs);
    case Target::color:
        if (isFloating(column.declared))
            return toVectors(particles.colors, asIs);
        if (column.declared == ScalarType::uint16)
            return toVectors(particles.colors, [](auto number) {
                return linearFromSrgb(static_cast<double>(number) / 65535.0);
            });
        return toVectors(particles.colors,
                         [](auto number) { return linearOfNumber(static_cast<double>(number)); });
    case Target::radius:
        return convertColumn<float>(
            column.stored, from, rowBytes, count, &particles.radii[converted], sizeof(float),
            [&](auto number) { return use.factor * static_cast<float>(number); });
    case Target::attribute:
        return convertColumn<float>(column.stored, from, rowBytes, count,
                                    &particles.attributes[use.part].values[converted],
                                    sizeof(float), asIs);
    case Target::id:
        return convertColumn<std::int64_t>(column.stored, from, rowBytes, count,
                                           &particles.ids[converted], sizeof(std::int64_t),
                                           [](auto number) { return idOf(number); });
    case Target::type:
        return convertColumn<std::int64_t>(column.stored, from, rowBytes, count,
                                           &particles.types[converted], sizeof(std::int64_t),
                                           [](auto number) { return idOf(number); });
    case Target::element:
        return convertColumn<std::uint8_t>(
            column.stored, from, rowBytes, count, &particles.elements[converted], 1,
            [](auto number) { return elementOf(static_cast<double>(number)); });
    }
}

void RowConverter::summarise(std::size_t column, char const* rows, std::size_t count,
                             std::size_t rowBytes) {
    AttributeSummary& summary = particles.columns[column];
    char const* at = rows + columns[column].offset;
    withType(columns[column].stored, [&]<class Number>(Number) {
        for (std::size_t row = 0; row < count; ++row, at += rowBytes) {
            Number number;
            std::memcpy(&number, at, sizeof number);
            double const value = static_cast<double>(number);
            if (!std::isfinite(value)) {
                ++summary.notFinite;
                continue;
            }
            bool const isFirst = finiteCount[column]++ == 0;
            summary.min = isFirst ? value : std::min(summary.min, value);
            summary.max = isFirst ? value : std::max(summary.max, value);
        }
    });
}

std::size_t plausibleRows(InputFile const& file, std::uint64_t promised, std::size_t rowBytes) {
    constexpr std::uint64_t usualCompression = 4;
    std::uint64_t const bytes = file.bytesLeft().value_or(usualCompression * file.sizeOnDisk());
    std::size_t const most = static_cast<std::size_t>(bytes / std::max<std::size_t>(1, rowBytes));
    return static_cast<std::size_t>(std::min<std::uint64_t>(promised, most));
}

} // namespace kelpatool
