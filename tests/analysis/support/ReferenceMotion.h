#pragma once

#include <QImage>

#include <opencv2/core/mat.hpp>

#include <vector>

// Slow, plain versions of the motion rules, written pixel by pixel with no shared code, so
// that the production code can be compared against them on arbitrary input.
namespace Reference {

// 7 x 7 mean with reflect-101 borders, rounded to the nearest integer.
cv::Mat boxBlur7(const cv::Mat& grey);

// 255 where |a - b| > threshold, 0 elsewhere.
cv::Mat thresholdedDifference(const cv::Mat& a, const cv::Mat& b, double threshold);

// The counting of separate motion events, fed one grey frame (8-bit, 1 channel) at a time.
class Analysis {
public:
    Analysis(int width, int height, bool blur);
    void addFrame(const cv::Mat& grey);
    cv::Mat counts() const { return m_counts; }
    int pairs() const { return m_pairs; }

private:
    bool m_blur;
    cv::Mat m_previous;
    cv::Mat m_counts;
    std::vector<int> m_lastMotion;
    int m_pairs = 0;
};

// Colour of the scale at intensity i as {R, G, B}, from the breakpoints of the scale.
struct Rgb {
    int r, g, b;
};
Rgb scale(int i);

// The map: one pixel at a time from the count and the R,G,B background.
QImage renderMap(const cv::Mat& counts, const cv::Mat& background);

} // namespace Reference
