#pragma once

#include <opencv2/core/mat.hpp>

#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class BackgroundLearner;
class MpegFrame;
class RgbConverter;

// A BackgroundLearner on a thread of its own, so that the model learns while the pass goes
// on decoding and counting; the pass needs the background only at a few milestones. The
// pass converts each frame to R,G,B itself, as it hands it over, so that the learner's own
// thread does nothing but feed the model, and no decoded picture is kept.
//
// Every learner has a model of its own, so passes side by side learn at the same time. The
// model's state is large (up to 100 bytes a pixel where the scene fills every mode, usually
// far less), so it lives only from the first frame learnt to finish().
//
// All calls come from the one thread that runs the pass; the learner's own thread only
// learns. Exceptions thrown by the model on the learning thread are thrown again to the
// pass by learn() and fetchBackground().
class AsyncBackgroundLearner {
public:
    // Frames waiting to be learnt at most; learn() blocks while this many wait. Each is an
    // R,G,B picture of its own. The thread learns all that wait in one go.
    static constexpr int kQueueLength = 2;

    AsyncBackgroundLearner();
    // As finish(), dropping frames not yet learnt.
    ~AsyncBackgroundLearner();

    AsyncBackgroundLearner(const AsyncBackgroundLearner&) = delete;
    AsyncBackgroundLearner& operator=(const AsyncBackgroundLearner&) = delete;

    // Converts `frame` to R,G,B (RgbConverter) and queues the picture; the frame itself is
    // not kept. A frame that cannot be converted is queued as black or as an earlier picture,
    // so that the model's count of frames stays in step with the video; a frame without
    // pixels is skipped. The first frame starts the model and its thread.
    void learn(const MpegFrame& frame);

    // Waits until every queued frame has been learnt, then copies the model's background
    // (8-bit R,G,B) into `background`; leaves it as it is when no frame has been learnt.
    void fetchBackground(cv::Mat& background);

    // Waits until the queued frames are learnt, ends the thread, frees the model and the
    // pictures. Later calls of learn() start over with a new model;
    // fetchBackground() then gives nothing until a frame has been learnt again.
    void finish();

    // Frames learnt by the current model.
    int learntFrames();

private:
    void start();
    void work();
    std::unique_ptr<RgbConverter> takeFreeConverter();
    // Puts the converters of the pictures not yet learnt back among the free ones. Called
    // with m_mutex held.
    void dropQueue();
    void waitUntilLearnt(std::unique_lock<std::mutex>& lock);
    void rethrowFailure();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Converters hold the pictures: waiting to be learnt, or free for the next frame.
    std::deque<std::unique_ptr<RgbConverter>> m_queue;
    std::vector<std::unique_ptr<RgbConverter>> m_free;
    bool m_busy = false;      // the thread is learning a frame taken off the queue
    bool m_stopping = false;
    std::exception_ptr m_failure;
    std::unique_ptr<BackgroundLearner> m_learner;
    std::thread m_thread;
};
