// Internal: how a pool's worker that waits for something helps with the jobs it may be waiting for.
#pragma once

namespace Kelpa {

/// Runs one queued job of the pool that the calling thread works for; false when there is none that
/// a waiting thread may run, or the thread is no worker.
bool runQueuedJobOfThisWorker();

/// Whether the calling thread is a pool's worker.
bool isPoolWorker();

} // namespace Kelpa
