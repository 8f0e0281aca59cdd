#include "ThreadPriority.h"

#include <algorithm>

#ifdef __linux__
#include <cerrno>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace ThreadPriority {

bool lowerCallingThread(int increment)
{
#ifdef __linux__
    constexpr int kWeakest = 19;
    // Linux applies PRIO_PROCESS to the single thread whose id it is given.
    const auto thread = static_cast<id_t>(syscall(SYS_gettid));
    errno = 0;
    const int current = getpriority(PRIO_PROCESS, thread);
    if (current == -1 && errno != 0)
        return false;
    return setpriority(PRIO_PROCESS, thread, std::min(current + increment, kWeakest)) == 0;
#else
    (void)increment;
    return false;
#endif
}

} // namespace ThreadPriority
