#pragma once

#include <QTime>

#include <atomic>

// Lock-free event counter that reports a rate: how many events per second since the
// previous query. Analysis passes raise it once per frame pair; the window's one-second tick
// reads and resets it.
class AtomicCounter {
public:
    // Starts the first interval now.
    AtomicCounter();

    // Adds one event. Safe from any number of threads at once.
    void increment();

    // Events per second since the previous query (or since construction), then starts a new
    // interval. For a single caller (the GUI thread's tick); an increment landing between
    // the read and the reset of the count is lost, which is accepted for a display figure.
    float getCountPerSecond();

    // The same with the clock reading given instead of taken, so the interval can be pinned.
    float getCountPerSecondAt(const QTime& now);

    // Public so that a caller can inspect or pin the interval; written only by the above.
    QTime m_time;
    std::atomic<int> m_count;

private:
    int restartClock(const QTime& now);
};
