#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

class MpegFrame;
class MpegReader;

// The frames of an open reader, one after another, each with the reader's byte position
// after it was read. With `ahead`, a thread of its own reads up to kDepth frames ahead, so
// that a decoder working on several pictures at once is never left waiting for the pass to
// ask for the next one; without, each frame is read when asked for. Frames are shared with
// the decoder (MpegReader::read(false)): only read them.
//
// Reading ahead lets the decoder reuse its pictures in an order that depends on timing; for
// a damaged video on one decoder thread that would change what its damaged pictures show,
// so the pass reads ahead only with several decoder threads, where that is so anyway.
//
// Used by one pass thread; the reader must not be used otherwise until the source is gone.
class FrameSource {
public:
    static constexpr int kDepth = 2;

    struct Frame {
        std::shared_ptr<MpegFrame> frame; // null at the end of the video
        std::int64_t position = -1;
    };

    FrameSource(MpegReader& reader, bool ahead);
    // Stops reading ahead; frames read but not taken are dropped.
    ~FrameSource();

    FrameSource(const FrameSource&) = delete;
    FrameSource& operator=(const FrameSource&) = delete;

    // The next frame; at the end of the video a null frame with the position the failed read
    // left, after it null frames at position -1.
    Frame next();

private:
    Frame readOne();
    void readAhead();

    MpegReader& m_reader;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Frame> m_queue;
    bool m_stopping = false;
    bool m_ended = false; // the taker's: the end has been handed out
    std::thread m_thread;
};
