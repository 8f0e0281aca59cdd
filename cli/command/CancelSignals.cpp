#include "CancelSignals.h"

#include <csignal>

namespace {

// Only a lock-free atomic may be touched from a signal handler.
static_assert(std::atomic<int>::is_always_lock_free, "the cancel flag must be lock-free");

std::atomic<int> g_signalNumber{0};

extern "C" void onCancelSignal(int signalNumber)
{
    int none = 0;
    g_signalNumber.compare_exchange_strong(none, signalNumber, std::memory_order_relaxed);
}

} // namespace

namespace CancelSignals {

bool install()
{
    struct sigaction action = {};
    action.sa_handler = onCancelSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    const bool interruptHandled = ::sigaction(SIGINT, &action, nullptr) == 0;
    const bool terminateHandled = ::sigaction(SIGTERM, &action, nullptr) == 0;
    return interruptHandled && terminateHandled;
}

const std::atomic<int>& flag()
{
    return g_signalNumber;
}

} // namespace CancelSignals
