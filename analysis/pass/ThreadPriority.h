#pragma once

// Lower scheduling priority for threads whose work should give way whenever another thread
// of the process (or of the system) wants a core.
namespace ThreadPriority {

// How far a pass lowers the threads of its own work below the video decoder's threads.
constexpr int kBelowDecoder = 10;
// The largest nice value, the weakest priority.
constexpr int kWeakest = 19;

// The calling thread's nice value; 0 where the system has no such setting. Thread-safe.
int niceOfCallingThread();

// Raises the calling thread's nice value by `increment` (at most to the weakest priority).
// On Linux the nice value belongs to the thread, and threads it starts afterwards inherit it.
// Without privileges it cannot be raised back, so call it only on a thread that ends with
// the work it lowers. Thread-safe. False where the system refuses or has no such setting.
bool lowerCallingThread(int increment);

} // namespace ThreadPriority
