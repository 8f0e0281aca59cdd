#include "BackgroundLearner.h"

#include "MpegFrame.h"

namespace {

// Rows of the colour buffer start on this boundary, which the colour converter prefers.
constexpr int kRowAlignment = 64;

int alignedRowBytes(int width)
{
    const int bytes = width * 3;
    return (bytes + kRowAlignment - 1) / kRowAlignment * kRowAlignment;
}

// The library's own automatic rate, derived from the model's history length.
constexpr double kAutomaticLearningRate = -1.0;

} // namespace

BackgroundLearner::BackgroundLearner(cv::Size size)
    : m_model(cv::createBackgroundSubtractorMOG2())
    , m_rgbBuffer(size.height, alignedRowBytes(size.width), CV_8UC1)
    , m_rgb(size, CV_8UC3, m_rgbBuffer.data, m_rgbBuffer.step)
{
}

void BackgroundLearner::learn(const MpegFrame& frame)
{
    frame.rgb24(m_rgb.data, static_cast<int>(m_rgb.step), m_rgb.cols, m_rgb.rows);
    learn(m_rgb);
}

void BackgroundLearner::learn(const cv::Mat& rgbFrame)
{
    // The foreground mask is not used; it is kept only so that no pair allocates one.
    m_model->apply(rgbFrame, m_foreground, kAutomaticLearningRate);
    ++m_learntFrames;
}

void BackgroundLearner::fetchBackground(cv::Mat& background) const
{
    if (m_learntFrames > 0)
        m_model->getBackgroundImage(background);
}
