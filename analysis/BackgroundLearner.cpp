#include "BackgroundLearner.h"

#include "MpegFrame.h"

BackgroundLearner::BackgroundLearner() = default;

void BackgroundLearner::learn(const MpegFrame& frame)
{
    m_converter.convert(frame);
    if (!m_converter.data())
        return;
    const cv::Mat rgb(m_converter.height(), m_converter.width(), CV_8UC3, const_cast<uint8_t*>(m_converter.data()),
                      static_cast<size_t>(m_converter.stride()));
    learn(rgb);
}

void BackgroundLearner::learn(const cv::Mat& rgbFrame)
{
    m_model.apply(rgbFrame);
    ++m_learntFrames;
}

void BackgroundLearner::learn(const std::vector<cv::Mat>& rgbFrames)
{
    m_model.applyAll(rgbFrames);
    m_learntFrames += static_cast<int>(rgbFrames.size());
}

void BackgroundLearner::fetchBackground(cv::Mat& background) const
{
    if (m_learntFrames > 0)
        m_model.backgroundImage(background);
}
