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
// after it was read. With `ahead`, a thread of its own reads up to a given depth of frames
// ahead, so that a decoder working on several pictures at once is never left waiting for the
// pass to ask for the next one, and keeps decoding while the pass is slower for a while;
// without, each frame is read when asked for. Frames are shared with the decoder
// (MpegReader::read(false)): only read them; each frame waiting holds one decoded picture.
//
// Reading ahead lets the decoder reuse its pictures in an order that depends on timing; for
// a damaged video on one decoder thread that would change what its damaged pictures show,
// so the pass reads ahead only with several decoder threads, where that is so anyway.
//
// Used by one thread at a time (a pass may create it on one thread and take its frames on
// another); the reader must not be used otherwise until the source is gone.
class FrameSource {
public:
    static constexpr int kMinDepth = 2;
    static constexpr int kMaxDepth = 32;
    // Memory that frames waiting may hold, as far as kMinDepth allows.
    static constexpr long long kQueueBytes = 100LL << 20;

    // The depth for pictures of `width` x `height`: as many as fit in kQueueBytes, counted as
    // 8-bit 4:2:0 pictures, within [kMinDepth, kMaxDepth].
    static int depthFor(int width, int height);

    struct Frame {
        std::shared_ptr<MpegFrame> frame; // null at the end of the video
        std::int64_t position = -1;
    };

    FrameSource(MpegReader& reader, bool ahead, int depth = kMinDepth);
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
    const int m_depth;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Frame> m_queue;
    bool m_stopping = false;
    bool m_ended = false; // the taker's: the end has been handed out
    std::thread m_thread;
};
