#include "FrameSource.h"

#include "MpegFrame.h"
#include "MpegReader.h"

#include <algorithm>
#include <new>

int FrameSource::depthFor(int width, int height)
{
    const long long pictureBytes = std::max(1LL, static_cast<long long>(width) * height * 3 / 2);
    return static_cast<int>(std::clamp<long long>(kQueueBytes / pictureBytes, kMinDepth, kMaxDepth));
}

FrameSource::FrameSource(MpegReader& reader, bool ahead, int depth)
    : m_reader(reader)
    , m_depth(std::max(depth, 1))
{
    if (ahead)
        m_thread = std::thread(&FrameSource::readAhead, this);
}

FrameSource::~FrameSource()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

FrameSource::Frame FrameSource::next()
{
    if (m_ended)
        return {};
    if (!m_thread.joinable()) {
        Frame frame = readOne();
        m_ended = frame.frame == nullptr;
        return frame;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_queue.empty(); });
    Frame frame = std::move(m_queue.front());
    m_queue.pop_front();
    lock.unlock();
    m_changed.notify_all();
    m_ended = frame.frame == nullptr;
    return frame;
}

// A frame too large for memory ends the video like a read failure.
FrameSource::Frame FrameSource::readOne()
{
    Frame frame;
    try {
        frame.frame.reset(m_reader.read(false));
    } catch (const std::bad_alloc&) {
        frame.frame.reset();
    }
    frame.position = m_reader.pos();
    return frame;
}

void FrameSource::readAhead()
{
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this] { return m_stopping || static_cast<int>(m_queue.size()) < m_depth; });
            if (m_stopping)
                return;
        }
        Frame frame = readOne();
        const bool end = frame.frame == nullptr;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_queue.push_back(std::move(frame));
        }
        m_changed.notify_all();
        if (end)
            return;
    }
}
