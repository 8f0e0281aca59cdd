#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

// Holds a reader of a video in the middle of its input: writes `bytes` into a named pipe it
// creates at `path`, the first `firstPart` bytes at once and the rest after release(), then
// closes it, so that the reader sees the end of its input. A pass reading the pipe blocks
// when it has consumed the first part, in whatever step it needs more, until released.
// Created and released on the test's thread; the writing runs on a thread of its own.
class PipeFeeder {
public:
    PipeFeeder(const QString& path, const QByteArray& bytes, int firstPart);
    // Releases (a failed test may leave its reader waiting for the rest), stops writing once
    // no reader takes more, and closes.
    ~PipeFeeder();

    PipeFeeder(const PipeFeeder&) = delete;
    PipeFeeder& operator=(const PipeFeeder&) = delete;

    // False when the pipe could not be made.
    bool isOpen() const { return m_fd >= 0; }
    // Bytes written that no reader has taken yet.
    int unread() const;
    void release();

private:
    void feed();
    // False when the reader took nothing for a minute, or for a moment once the feeder is
    // being destroyed (the reader failed, stopped or went away).
    bool write(int from, int to);

    const QByteArray m_bytes;
    const int m_firstPart;
    int m_fd = -1;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_released = false;
    std::atomic<bool> m_closing{false};
    std::thread m_writer;
};
