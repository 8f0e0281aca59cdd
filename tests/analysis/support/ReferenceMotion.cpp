#include "ReferenceMotion.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace Reference {
namespace {

int reflect101(int p, int n)
{
    if (n == 1)
        return 0;
    while (p < 0 || p >= n) {
        if (p < 0)
            p = -p;
        if (p >= n)
            p = 2 * n - 2 - p;
    }
    return p;
}

} // namespace

cv::Mat boxBlur7(const cv::Mat& grey)
{
    cv::Mat out(grey.size(), CV_8UC1);
    for (int y = 0; y < grey.rows; ++y) {
        for (int x = 0; x < grey.cols; ++x) {
            int sum = 0;
            for (int dy = -3; dy <= 3; ++dy)
                for (int dx = -3; dx <= 3; ++dx)
                    sum += grey.at<uchar>(reflect101(y + dy, grey.rows), reflect101(x + dx, grey.cols));
            out.at<uchar>(y, x) = static_cast<uchar>((2 * sum + 49) / 98);
        }
    }
    return out;
}

Analysis::Analysis(int width, int height, bool blur, const cv::Mat& mask)
    : m_blur(blur)
    , m_mask(mask)
    , m_counts(height, width, CV_8UC1, cv::Scalar(0))
    , m_exactCounts(height, width, CV_32SC1, cv::Scalar(0))
    , m_lastMotion(static_cast<size_t>(width) * static_cast<size_t>(height), -1000)
{
}

void Analysis::setSteadyLight(double sceneChangeShare)
{
    m_steadyLight = true;
    m_sceneChangeShare = sceneChangeShare;
}

namespace {

bool analysed(const cv::Mat& mask, int x, int y)
{
    return mask.empty() || mask.at<uchar>(y, x) != 0;
}

// The difference at index floor((n - 1) / 2) of the analysed pixels' differences, sorted.
int lowerMedianDifference(const cv::Mat& previous, const cv::Mat& frame, const cv::Mat& mask)
{
    std::vector<int> differences;
    for (int y = 0; y < frame.rows; ++y) {
        for (int x = 0; x < frame.cols; ++x) {
            if (analysed(mask, x, y))
                differences.push_back(int(frame.at<uchar>(y, x)) - int(previous.at<uchar>(y, x)));
        }
    }
    if (differences.empty())
        return 0;
    std::sort(differences.begin(), differences.end());
    return differences[(differences.size() - 1) / 2];
}

} // namespace

void Analysis::addFrame(const cv::Mat& grey)
{
    const cv::Mat frame = m_blur ? boxBlur7(grey) : grey.clone();
    if (m_previous.empty()) {
        m_previous = frame;
        return;
    }
    const double threshold = m_blur ? 20.0 : 40.0;
    Pair pair;
    pair.lightShift = m_steadyLight ? lowerMedianDifference(m_previous, frame, m_mask) : 0;
    long long analysedPixels = 0;
    cv::Mat moved(frame.size(), CV_8UC1, cv::Scalar(0));
    for (int y = 0; y < frame.rows; ++y) {
        for (int x = 0; x < frame.cols; ++x) {
            if (!analysed(m_mask, x, y))
                continue;
            ++analysedPixels;
            const int difference = int(frame.at<uchar>(y, x)) - int(m_previous.at<uchar>(y, x)) - pair.lightShift;
            if (std::abs(difference) > threshold) {
                moved.at<uchar>(y, x) = 1;
                ++pair.moving;
            }
        }
    }
    pair.sceneChange = m_steadyLight && double(pair.moving) > m_sceneChangeShare * double(analysedPixels);
    std::vector<cv::Point> fresh;
    for (int y = 0; y < frame.rows && !pair.sceneChange; ++y) {
        for (int x = 0; x < frame.cols; ++x) {
            if (moved.at<uchar>(y, x) == 0)
                continue;
            int& last = m_lastMotion[static_cast<size_t>(y) * static_cast<size_t>(frame.cols) + static_cast<size_t>(x)];
            if (m_countedPairs - last >= 51) {
                m_counts.at<uchar>(y, x) = static_cast<uchar>((m_counts.at<uchar>(y, x) + 1) % 256);
                ++m_exactCounts.at<int>(y, x);
                ++pair.newEvents;
                fresh.emplace_back(x, y);
            }
            last = m_countedPairs;
        }
    }
    m_activity.push_back(pair);
    m_newEventPixels.push_back(fresh);
    m_previous = frame;
    ++m_pairs;
    if (!pair.sceneChange)
        ++m_countedPairs;
}

cv::Mat nearestMask(const cv::Mat& mask, cv::Size size)
{
    cv::Mat out(size, CV_8UC1);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            // The centre (x + 1/2) in the mask's pixels, rounded down, in whole numbers.
            const int sy = (2 * y + 1) * mask.rows / (2 * size.height);
            const int sx = (2 * x + 1) * mask.cols / (2 * size.width);
            out.at<uchar>(y, x) = mask.at<uchar>(sy, sx);
        }
    }
    return out;
}

std::vector<std::vector<long long>> cellEventSeconds(const Analysis& analysis, int width, int height, int cellSize,
                                                    const std::vector<double>& pairTimes)
{
    const int columns = (width + cellSize - 1) / cellSize;
    const int rows = (height + cellSize - 1) / cellSize;
    std::vector<std::vector<long long>> seconds(static_cast<size_t>(columns * rows));
    for (size_t p = 0; p < analysis.newEventPixels().size(); ++p) {
        const long long second = static_cast<long long>(std::floor(pairTimes.at(p)));
        for (const cv::Point& pixel : analysis.newEventPixels()[p]) {
            std::vector<long long>& cell = seconds[static_cast<size_t>(pixel.y / cellSize * columns + pixel.x / cellSize)];
            if (std::find(cell.begin(), cell.end(), second) == cell.end())
                cell.push_back(second);
        }
    }
    for (std::vector<long long>& cell : seconds)
        std::sort(cell.begin(), cell.end());
    return seconds;
}

Rgb scale(int i)
{
    if (i <= 31)
        return {0, 0, 127 + 4 * i};
    if (i <= 95)
        return {0, 4 * (i - 32), 255};
    if (i <= 159)
        return {4 * (i - 96) + 1, 255, 253 - 4 * (i - 96)};
    if (i <= 223)
        return {255, 252 - 4 * (i - 160), 0};
    return {251 - 4 * (i - 224), 0, 0};
}

QImage renderMap(const cv::Mat& counts, const cv::Mat& background)
{
    QImage map(background.cols, background.rows, QImage::Format_RGB888);
    for (int y = 0; y < background.rows; ++y) {
        for (int x = 0; x < background.cols; ++x) {
            const cv::Vec3b bg = background.at<cv::Vec3b>(y, x);
            const int grey = (bg[0] + bg[1] + bg[2]) / 6;
            const int i = std::min(counts.at<uchar>(y, x) * 30, 255);
            QRgb colour = qRgb(grey, grey, grey);
            if (i != 0) {
                const Rgb c = scale(i);
                colour = qRgb(std::min(c.r + grey, 255), std::min(c.g + grey, 255), std::min(c.b + grey, 255));
            }
            map.setPixel(x, y, colour);
        }
    }
    return map;
}

} // namespace Reference
