#include "AsyncBackgroundLearner.h"

#include "BackgroundLearner.h"
#include "MpegFrame.h"
#include "RgbConverter.h"

AsyncBackgroundLearner::AsyncBackgroundLearner() = default;

AsyncBackgroundLearner::~AsyncBackgroundLearner()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        dropQueue();
    }
    finish();
}

void AsyncBackgroundLearner::learn(const MpegFrame& frame)
{
    if (!m_learner)
        start();
    std::unique_ptr<RgbConverter> converter = takeFreeConverter();
    converter->convert(frame);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (converter->data())
            m_queue.push_back(std::move(converter));
        else
            m_free.push_back(std::move(converter));
    }
    m_changed.notify_all();
}

std::unique_ptr<RgbConverter> AsyncBackgroundLearner::takeFreeConverter()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_failure || (!m_free.empty() && static_cast<int>(m_queue.size()) < kQueueLength); });
    rethrowFailure();
    std::unique_ptr<RgbConverter> converter = std::move(m_free.back());
    m_free.pop_back();
    return converter;
}

void AsyncBackgroundLearner::dropQueue()
{
    for (std::unique_ptr<RgbConverter>& converter : m_queue)
        m_free.push_back(std::move(converter));
    m_queue.clear();
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
    m_free.clear();
    m_stopping = false;
    m_failure = nullptr;
}

int AsyncBackgroundLearner::learntFrames()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    waitUntilLearnt(lock);
    return m_learner ? m_learner->learntFrames() : 0;
}

void AsyncBackgroundLearner::start()
{
    // A full queue being learnt, the queue full again, and one being converted meanwhile.
    for (int i = 0; i < 2 * kQueueLength + 1; ++i)
        m_free.push_back(std::make_unique<RgbConverter>());
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
        // Every picture waiting is learnt in one go: the model learns several faster than
        // one after another.
        std::vector<std::unique_ptr<RgbConverter>> pictures;
        while (!m_queue.empty()) {
            pictures.push_back(std::move(m_queue.front()));
            m_queue.pop_front();
        }
        m_busy = true;
        lock.unlock();
        std::exception_ptr failure;
        try {
            std::vector<cv::Mat> frames;
            for (const std::unique_ptr<RgbConverter>& picture : pictures)
                frames.emplace_back(picture->height(), picture->width(), CV_8UC3,
                                    const_cast<uint8_t*>(picture->data()), static_cast<size_t>(picture->stride()));
            m_learner->learn(frames);
        } catch (...) {
            failure = std::current_exception();
        }
        lock.lock();
        m_busy = false;
        for (std::unique_ptr<RgbConverter>& picture : pictures)
            m_free.push_back(std::move(picture));
        if (failure) {
            m_failure = failure;
            dropQueue();
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
