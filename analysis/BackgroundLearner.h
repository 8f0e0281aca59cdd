#pragma once

#include "MixtureModel.h"
#include "RgbConverter.h"

#include <opencv2/core/mat.hpp>

#include <vector>

class MpegFrame;

// Learns the scene's background from colour frames with the library's Gaussian-mixture
// model at its default parameters (computed by MixtureModel, which gives the same images).
// The model reserves its state (up to 100 bytes a pixel) on the first frame and frees it
// with the learner. One object serves one analysis pass;
// not thread-safe.
class BackgroundLearner {
public:
    BackgroundLearner();

    // Feeds `frame` to the model as R,G,B (converted with one scaler kept for the whole
    // video), letting the model choose its own learning rate from its history. A frame that
    // cannot be converted is fed as black, or as the frame before it, so the model's count
    // of frames stays in step with the video; a frame without pixels is not fed.
    void learn(const MpegFrame& frame);
    void learn(const cv::Mat& rgbFrame);
    // Learns R,G,B frames in order, as one learn() call each would, but faster.
    void learn(const std::vector<cv::Mat>& rgbFrames);

    // Copies the model's background (8-bit R,G,B) into `background`. Does nothing before the
    // first frame has been learnt: the model has no image to give then.
    void fetchBackground(cv::Mat& background) const;

    int learntFrames() const { return m_learntFrames; }

private:
    MixtureModel m_model;
    RgbConverter m_converter;
    int m_learntFrames = 0;
};
