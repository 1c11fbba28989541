// Compares what names lead to, by device and number.
#include "tool/commands/writtenfiles.h"

#include "pipeline/files/framesource.h"
#include "pipeline/files/outputfile.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <variant>

namespace pipeline::tool {

WrittenFiles::WrittenFiles(Options const& options) {
    std::vector<std::string> given = options.particles.files;
    if (auto const* const second = std::get_if<ToFile>(&options.scene.motion.motion))
        given.push_back(second->path);
    given.insert(given.end(), options.particles.more.begin(), options.particles.more.end());
    given.insert(given.end(), options.tiles.begin(), options.tiles.end());
    for (std::string const& path : given)
        for (std::string const& file : filesNamed(path))
            if (auto const identity = identityOf(file))
                read.insert(*identity);
}

void WrittenFiles::add(std::string const& path) {
    OutputFile::check(path);
    std::optional<Identity> const identity = identityOf(path);
    if (identity && read.contains(*identity))
        throw UsageError(
            fmt::format("{}: would be written over while it is read; write elsewhere", path));
    struct stat status {};
    bool const isThere = stat(path.c_str(), &status) == 0;
    if (isThere && !identity)
        return;
    std::string const name = std::filesystem::weakly_canonical(
                                 std::filesystem::absolute(OutputFile::destinationOf(path)))
                                 .string();
    bool const isNew = names.insert(name).second;
    if (!isNew || (identity && !replaced.insert(*identity).second))
        throw UsageError(fmt::format("{}: would be written twice; name two files", path));
}

std::optional<WrittenFiles::Identity> WrittenFiles::identityOf(std::string const& path) {
    struct stat status {};
    bool const counts =
        stat(path.c_str(), &status) == 0 && (S_ISREG(status.st_mode) || S_ISFIFO(status.st_mode));
    return counts ? std::optional(Identity{status.st_dev, status.st_ino}) : std::nullopt;
}

} // namespace pipeline::tool
