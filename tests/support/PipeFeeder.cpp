#include "PipeFeeder.h"

#include <QFile>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

PipeFeeder::PipeFeeder(const QString& path, const QByteArray& bytes, int firstPart)
    : m_bytes(bytes)
    , m_firstPart(firstPart)
{
    const QByteArray name = QFile::encodeName(path);
    // Read and write: opening does not wait for a reader, and the pipe stays open in between
    // the two parts.
    if (mkfifo(name.constData(), 0600) == 0)
        m_fd = ::open(name.constData(), O_RDWR | O_NONBLOCK);
    if (m_fd >= 0)
        m_writer = std::thread([this] { feed(); });
}

PipeFeeder::~PipeFeeder()
{
    m_closing = true;
    release();
    if (m_writer.joinable())
        m_writer.join();
}

int PipeFeeder::unread() const
{
    int bytes = 0;
    return m_fd >= 0 && ioctl(m_fd, FIONREAD, &bytes) == 0 ? bytes : -1;
}

void PipeFeeder::release()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
    }
    m_changed.notify_all();
}

void PipeFeeder::feed()
{
    if (write(0, m_firstPart)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_released; });
        lock.unlock();
        write(m_firstPart, m_bytes.size());
    }
    ::close(m_fd);
}

bool PipeFeeder::write(int from, int to)
{
    constexpr int kGiveUpMs = 60000;
    constexpr int kGiveUpClosingMs = 200;
    constexpr int kPollMs = 20;
    int idleMs = 0;
    while (from < to) {
        pollfd ready{m_fd, POLLOUT, 0};
        if (poll(&ready, 1, kPollMs) <= 0) {
            idleMs += kPollMs;
            if (idleMs >= (m_closing ? kGiveUpClosingMs : kGiveUpMs))
                return false;
            continue;
        }
        idleMs = 0;
        const ssize_t written = ::write(m_fd, m_bytes.constData() + from, static_cast<size_t>(to - from));
        if (written < 0 && errno != EAGAIN)
            return false;
        from += static_cast<int>(std::max<ssize_t>(written, 0));
    }
    return true;
}
