// Stands in for streams that are closed, and reports what could not be written.
#include "tool/process/standardstreams.h"

#include "pipeline/files/errors.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>

namespace pipeline::tool {

void secureStandardStreams() {
    for (int const stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0)                     // the lowest free number is this one
            static_cast<void>(open("/dev/null", O_RDONLY)); // writing to it fails, as it should
    std::signal(SIGPIPE, SIG_IGN);
}

void finishStandardOutput() {
    bool const isWritten = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (isWritten)
        return;
    pollfd pipe{STDOUT_FILENO, POLLOUT, 0};
    bool const readerLeft = poll(&pipe, 1, 0) == 1 && (pipe.revents & POLLERR) != 0;
    if (readerLeft) {
        std::signal(SIGPIPE, SIG_DFL);
        std::raise(SIGPIPE);
    }
    throw OutputError("standard output cannot be written");
}

} // namespace pipeline::tool
