// Ends the process when Ctrl-C would be answered late.
#pragma once

#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <thread>

namespace pipeline::tool {

/// Ends the process, with the message and code of an interruption, when Ctrl-C was pressed and what
/// runs in its scope has not ended for a moment.
///
/// Phases poll, but gathering and packing millions of particles, encoding a picture, opening a pipe
/// and giving back gigabytes do not. While an `OutputFile` exists the process is left alone: its
/// temporary file has to go first.
class InterruptWatch {
  public:
    InterruptWatch();

  private:
    void watch(std::stop_token const& stop);

    std::mutex mutex;
    std::condition_variable_any ended;
    std::jthread watcher; // last, so that it ends before what it uses
};

} // namespace pipeline::tool
