#pragma once

#include "MixtureModel.h"

#include <opencv2/core/mat.hpp>

#include <vector>

// Learns the scene's background from colour frames with the library's Gaussian-mixture
// model at its default parameters (computed by MixtureModel, which gives the same images).
// The model reserves its state (up to 100 bytes a pixel) on the first frame and frees it
// with the learner. One object serves one analysis pass; not thread-safe.
class BackgroundLearner {
public:
    BackgroundLearner();

    // Feeds 8-bit R,G,B frames to the model in order, letting it choose its own learning rate
    // from its history; several at once are learnt faster than one after another.
    void learn(const std::vector<cv::Mat>& rgbFrames);

    // Copies the model's background (8-bit R,G,B) into `background`. Does nothing before the
    // first frame has been learnt: the model has no image to give then.
    void fetchBackground(cv::Mat& background) const;

    int learntFrames() const { return m_learntFrames; }

private:
    MixtureModel m_model;
    int m_learntFrames = 0;
};
