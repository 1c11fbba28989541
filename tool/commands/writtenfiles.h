// Keeps a command from writing over what it reads.
#pragma once

#include "tool/options/options.h"

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace pipeline::tool {

/// Keeps what a command writes apart from what it reads and from what else it writes, by what the
/// names lead to: links of both kinds and other ways to a file count. Devices and sockets, such as
/// /dev/null and a terminal, may be used as often as one likes.
class WrittenFiles {
  public:
    /// Knows the files that the options name as input, all of a sequence. Throws `InputError` when
    /// a sequence has none.
    explicit WrittenFiles(Options const& options);

    /// A file that will be written, one of several of the run. Throws `UsageError` when it is one
    /// that is read, or that is written already, and `OutputError` when it cannot be written.
    void add(std::string const& path);

  private:
    /// A file that is there: its device and its number on it.
    using Identity = std::pair<dev_t, ino_t>;

    static std::optional<Identity> identityOf(std::string const& path);

    std::set<Identity> read;
    std::set<Identity> replaced; ///< files that were there when they were added
    std::set<std::string> names; ///< of all that were added, with links resolved
};

} // namespace pipeline::tool
