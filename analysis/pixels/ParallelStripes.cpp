#include "ParallelStripes.h"

#include <exception>

ParallelStripes::ParallelStripes(int helpers)
{
    // A helper the system cannot start leaves its pieces to the others and the caller.
    try {
        for (int i = 0; i < helpers; ++i)
            m_helpers.emplace_back(&ParallelStripes::help, this);
    } catch (const std::exception&) {
    }
}

ParallelStripes::~ParallelStripes()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    for (std::thread& helper : m_helpers)
        helper.join();
}

void ParallelStripes::run(int count, const std::function<void(int)>& work)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_work = &work;
    m_count = count;
    m_next = 0;
    m_finished = 0;
    if (!m_helpers.empty() && count > 1) {
        lock.unlock();
        m_wake.notify_all();
        lock.lock();
    }
    runPieces(lock);
    m_done.wait(lock, [this] { return m_finished == m_count; });
    m_work = nullptr;
}

void ParallelStripes::help()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_stopping || m_next < m_count; });
        if (m_stopping)
            return;
        runPieces(lock);
    }
}

void ParallelStripes::runPieces(std::unique_lock<std::mutex>& lock)
{
    while (m_next < m_count) {
        const int piece = m_next++;
        const std::function<void(int)>& work = *m_work;
        lock.unlock();
        work(piece);
        lock.lock();
        if (++m_finished == m_count)
            m_done.notify_all();
    }
}
