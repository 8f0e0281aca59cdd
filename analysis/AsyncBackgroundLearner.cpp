#include "AsyncBackgroundLearner.h"

#include "BackgroundLearner.h"
#include "MpegFrame.h"

#include <chrono>

namespace {

// The process-wide model slot: taken by at most one learner at a time.
class ModelSlot {
public:
    static ModelSlot& instance()
    {
        static ModelSlot slot;
        return slot;
    }

    bool acquire(const std::function<bool()>& canceled)
    {
        constexpr std::chrono::milliseconds kPollInterval(20);
        std::unique_lock<std::mutex> lock(m_mutex);
        while (m_taken) {
            if (m_freed.wait_for(lock, kPollInterval, [this] { return !m_taken; }))
                break;
            lock.unlock();
            const bool giveUp = canceled && canceled();
            lock.lock();
            if (giveUp && m_taken)
                return false;
        }
        m_taken = true;
        return true;
    }

    void release()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_taken = false;
        }
        m_freed.notify_one();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_freed;
    bool m_taken = false;
};

} // namespace

AsyncBackgroundLearner::AsyncBackgroundLearner() = default;

AsyncBackgroundLearner::~AsyncBackgroundLearner()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.clear();
    }
    finish();
}

bool AsyncBackgroundLearner::learn(std::shared_ptr<const MpegFrame> frame, const std::function<bool()>& canceled)
{
    if (!m_holdsSlot) {
        if (!ModelSlot::instance().acquire(canceled))
            return false;
        m_holdsSlot = true;
        start();
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_failure || static_cast<int>(m_queue.size()) < kQueueLength; });
    rethrowFailure();
    m_queue.push_back(std::move(frame));
    lock.unlock();
    m_changed.notify_all();
    return true;
}

void AsyncBackgroundLearner::fetchBackground(cv::Mat& background)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    waitUntilLearnt(lock);
    rethrowFailure();
    // The thread is idle and the queue empty: the model is this thread's until it queues more.
    if (m_learner)
        m_learner->fetchBackground(background);
}

void AsyncBackgroundLearner::finish()
{
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        waitUntilLearnt(lock);
        m_stopping = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
    m_learner.reset();
    m_stopping = false;
    m_failure = nullptr;
    if (m_holdsSlot) {
        ModelSlot::instance().release();
        m_holdsSlot = false;
    }
}

int AsyncBackgroundLearner::learntFrames()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    waitUntilLearnt(lock);
    return m_learner ? m_learner->learntFrames() : 0;
}

void AsyncBackgroundLearner::start()
{
    m_learner = std::make_unique<BackgroundLearner>();
    m_thread = std::thread(&AsyncBackgroundLearner::work, this);
}

void AsyncBackgroundLearner::work()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
        if (m_queue.empty())
            return;
        std::shared_ptr<const MpegFrame> frame = std::move(m_queue.front());
        m_queue.pop_front();
        m_busy = true;
        lock.unlock();
        std::exception_ptr failure;
        try {
            m_learner->learn(*frame);
        } catch (...) {
            failure = std::current_exception();
        }
        frame.reset();
        lock.lock();
        m_busy = false;
        if (failure) {
            m_failure = failure;
            m_queue.clear();
        }
        m_changed.notify_all();
    }
}

void AsyncBackgroundLearner::waitUntilLearnt(std::unique_lock<std::mutex>& lock)
{
    m_changed.wait(lock, [this] { return m_queue.empty() && !m_busy; });
}

void AsyncBackgroundLearner::rethrowFailure()
{
    if (m_failure)
        std::rethrow_exception(m_failure);
}
