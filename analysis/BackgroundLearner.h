#pragma once

#include <opencv2/core/mat.hpp>
#include <opencv2/video/background_segm.hpp>

class MpegFrame;

// Learns the scene's background from colour frames with the library's Gaussian-mixture
// model at its default parameters. One object serves one analysis pass; not thread-safe.
class BackgroundLearner {
public:
    // `size` is the video's frame size; the colour buffer is allocated here, once.
    explicit BackgroundLearner(cv::Size size);

    // Feeds `frame` (of the video's size) to the model as R,G,B, letting the model choose
    // its own learning rate from its history.
    void learn(const MpegFrame& frame);
    void learn(const cv::Mat& rgbFrame);

    // Copies the model's background (8-bit R,G,B) into `background`. Does nothing before the
    // first frame has been learnt: the model has no image to give then.
    void fetchBackground(cv::Mat& background) const;

    int learntFrames() const { return m_learntFrames; }

private:
    cv::Ptr<cv::BackgroundSubtractorMOG2> m_model;
    cv::Mat m_rgbBuffer;
    cv::Mat m_rgb;
    cv::Mat m_foreground;
    int m_learntFrames = 0;
};
