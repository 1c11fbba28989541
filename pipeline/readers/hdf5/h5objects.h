// What the reading program asks of HDF5 files: groups, attributes and arrays, in our own words.
#pragma once

#include "pipeline/files/scalartype.h"

#include <hdf5.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pipeline {

/// An open object of HDF5; closes with this one.
class H5Handle {
  public:
    H5Handle() = default;
    explicit H5Handle(hid_t given) : id(given) {}
    ~H5Handle() {
        if (id >= 0)
            H5Idec_ref(id);
    }
    H5Handle(H5Handle&& other) noexcept : id(std::exchange(other.id, -1)) {}
    H5Handle& operator=(H5Handle&& other) noexcept {
        std::swap(id, other.id);
        return *this;
    }

    bool isOpen() const { return id >= 0; }
    operator hid_t() const { return id; } // what the library's functions take

  private:
    hid_t id = -1;
};

/// Opens a file for reading. Throws `ReaderProblem` for what is none or is cut off.
H5Handle openH5File(std::string const& path);

/// Whether a path of links leads to an object, none of them broken.
bool hasObject(hid_t place, std::string const& path);
bool isGroup(hid_t place, std::string const& path);
/// Opens a group; not open where there is none of this name.
H5Handle openGroup(hid_t place, std::string const& path);
/// The names of a group's members, sorted.
std::vector<std::string> membersOf(hid_t group);

/// The numbers of an attribute, one or several; none where there is no such attribute.
std::vector<double> numbersOf(hid_t object, char const* attribute);
/// The text of an attribute, or its texts with blanks between; empty where there is none.
std::string textOf(hid_t object, char const* attribute);

/// A range of an array's entries along one of its axes.
struct H5Range {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
};

/// An array of numbers in a file. Copies share it.
class H5Array {
  public:
    /// Opens a dataset. Throws `ReaderProblem` where the file cannot hold as much as it claims.
    /// Nothing where the name is no dataset of numbers.
    static std::optional<H5Array> open(hid_t place, std::string const& path,
                                       std::uint64_t fileBytes);

    std::vector<std::uint64_t> const& shape() const { return extents; }
    std::size_t rank() const { return extents.size(); }
    /// The type that holds all of its numbers.
    ScalarType type() const { return scalar; }
    /// The names that its numbers stand for, where it is an enumeration.
    std::vector<std::pair<std::int64_t, std::string>> const& names() const { return enumNames; }
    hid_t id() const { return *dataset; }

    /// Reads ranges of all axes, row by row, as numbers of a type.
    void read(std::vector<H5Range> const& ranges, ScalarType as, void* to) const;
    /// Reads a small array whole.
    std::vector<double> numbers() const;

  private:
    std::shared_ptr<H5Handle const> dataset;
    std::string name;
    std::vector<std::uint64_t> extents;
    ScalarType scalar = ScalarType::float64;
    std::vector<std::pair<std::int64_t, std::string>> enumNames;
};

} // namespace pipeline
