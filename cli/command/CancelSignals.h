#pragma once

#include <atomic>

// Ctrl+C and `kill` as a request to cancel: SIGINT and SIGTERM record their number in a
// lock-free flag, which the analysis passes poll once per frame pair. Each handler is
// one-shot, so a second signal of the same kind ends the program the default way.
namespace CancelSignals {

// Installs the handlers; false if the system refused one. Main thread, once, at start-up.
bool install();

// The number of the first signal received, 0 while none was. Any thread.
const std::atomic<int>& flag();

} // namespace CancelSignals
