#include "CombinedMap.h"

#include <QMutexLocker>

#include <opencv2/core.hpp>

CombinedMap::CombinedMap(cv::Size size)
    : m_size(size)
    , m_sum(size, CV_32SC1, cv::Scalar(0))
    , m_background(size, CV_8UC3, cv::Scalar(0, 0, 0))
{
}

bool CombinedMap::add(int index, const cv::Mat& counts, const cv::Mat& background)
{
    const bool hasBackground = !background.empty();
    if (counts.size() != m_size || (counts.type() != CV_16UC1 && counts.type() != CV_32SC1)
        || (hasBackground && (background.size() != m_size || background.type() != CV_8UC3)))
        return false;
    QMutexLocker lock(&m_mutex);
    // The caller asked wantsBackground() and left it out; an earlier input has given one since.
    if (!hasBackground && index < m_backgroundIndex)
        return false;
    cv::add(m_sum, counts, m_sum, cv::noArray(), CV_32S);
    if (index < m_backgroundIndex) {
        background.copyTo(m_background);
        m_backgroundIndex = index;
    }
    ++m_inputs;
    return true;
}

bool CombinedMap::wantsBackground(int index)
{
    QMutexLocker lock(&m_mutex);
    return index < m_backgroundIndex;
}
