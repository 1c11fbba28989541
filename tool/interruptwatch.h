#pragma once

#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <thread>

namespace kelpatool {

/// Ends the process when Ctrl-C was pressed and what runs in its scope has not come back for a
/// moment.
///
/// Builds ask for an abort as they split, but gathering and packing millions of particles does not,
/// nor does a library that encodes a picture. Only for scopes in which no temporary file exists.
class InterruptWatch {
  public:
    InterruptWatch();

  private:
    void watch(std::stop_token const& stop);

    std::mutex mutex;
    std::condition_variable_any ended;
    std::jthread watcher; // last, so that it ends before what it uses
};

} // namespace kelpatool
