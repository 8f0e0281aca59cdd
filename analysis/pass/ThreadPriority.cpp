#include "ThreadPriority.h"

#include <algorithm>

#ifdef __linux__
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace ThreadPriority {

#ifdef __linux__
namespace {

// Linux applies PRIO_PROCESS to the single thread whose id it is given.
id_t callingThread()
{
    return static_cast<id_t>(syscall(SYS_gettid));
}

} // namespace
#endif

int niceOfCallingThread()
{
#ifdef __linux__
    // A thread may always ask for its own value, so -1 is the value, not a failure.
    return getpriority(PRIO_PROCESS, callingThread());
#else
    return 0;
#endif
}

bool lowerCallingThread(int increment)
{
#ifdef __linux__
    return setpriority(PRIO_PROCESS, callingThread(), std::min(niceOfCallingThread() + increment, kWeakest)) == 0;
#else
    (void)increment;
    return false;
#endif
}

} // namespace ThreadPriority
