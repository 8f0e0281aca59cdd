#include "BackgroundLearner.h"

BackgroundLearner::BackgroundLearner() = default;

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
