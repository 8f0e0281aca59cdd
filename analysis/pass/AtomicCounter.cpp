#include "AtomicCounter.h"

namespace {

constexpr int kMsecsPerDay = 24 * 60 * 60 * 1000;

} // namespace

AtomicCounter::AtomicCounter()
    : m_time(QTime::currentTime())
    , m_count(0)
{
}

void AtomicCounter::increment()
{
    m_count.fetch_add(1, std::memory_order_seq_cst);
}

float AtomicCounter::getCountPerSecond()
{
    return getCountPerSecondAt(QTime::currentTime());
}

float AtomicCounter::getCountPerSecondAt(const QTime& now)
{
    const int elapsedMs = restartClock(now);
    // A separate load and store rather than an exchange: an increment in between is lost,
    // and the figure stays the one the tick has always shown.
    const int count = m_count.load(std::memory_order_relaxed);
    m_count.store(0, std::memory_order_relaxed);
    if (elapsedMs < 1)
        return 0.0f;
    return static_cast<float>(count) / static_cast<float>(elapsedMs) * 1000.0f;
}

// What QTime::restart does, without its deprecated API: a time of day, so an interval that
// spans midnight is carried over into the next day.
int AtomicCounter::restartClock(const QTime& now)
{
    int elapsedMs = m_time.msecsTo(now);
    if (elapsedMs < 0)
        elapsedMs += kMsecsPerDay;
    m_time = now;
    return elapsedMs;
}
