#pragma once

#include <QImage>

#include <opencv2/core/mat.hpp>

#include <vector>

// Slow, plain versions of the motion rules, written pixel by pixel with no shared code, so
// that the production code can be compared against them on arbitrary input.
namespace Reference {

// 7 x 7 mean with reflect-101 borders, rounded to the nearest integer.
cv::Mat boxBlur7(const cv::Mat& grey);

// The counting of separate motion events, fed one grey frame (8-bit, 1 channel) at a time.
class Analysis {
public:
    // What one pair showed: pixels that moved, and the new events among them.
    struct Pair {
        long long moving = 0;
        long long newEvents = 0;
        bool sceneChange = false;
        int lightShift = 0;
    };

    // `mask` (8-bit, the frames' size; empty for none): pixels where it is 0 never move.
    Analysis(int width, int height, bool blur, const cv::Mat& mask = {});
    // From now on a change of light is not motion: each pair's lower median difference is
    // taken out, and a pair where more than `sceneChangeShare` of the analysed pixels still
    // move is a scene change, which starts nothing and is skipped for the quiet gap.
    void setSteadyLight(double sceneChangeShare);
    void addFrame(const cv::Mat& grey);
    // 8-bit, wrapping after 255 as the map's count does.
    cv::Mat counts() const { return m_counts; }
    // 32-bit signed, never wrapping.
    cv::Mat exactCounts() const { return m_exactCounts; }
    const std::vector<Pair>& activity() const { return m_activity; }
    // Per pair, the pixels where a new event began, row by row.
    const std::vector<std::vector<cv::Point>>& newEventPixels() const { return m_newEventPixels; }
    int pairs() const { return m_pairs; }

private:
    bool m_blur;
    cv::Mat m_mask;
    cv::Mat m_previous;
    cv::Mat m_counts;
    cv::Mat m_exactCounts;
    std::vector<int> m_lastMotion;
    std::vector<Pair> m_activity;
    std::vector<std::vector<cv::Point>> m_newEventPixels;
    int m_pairs = 0;
    bool m_steadyLight = false;
    double m_sceneChangeShare = 0.0;
    // Pairs that were not scene changes: the clock of the quiet gap.
    int m_countedPairs = 0;
};

// The mask pixel under the centre of each pixel of a picture of `size`.
cv::Mat nearestMask(const cv::Mat& mask, cv::Size size);

// Per cell of `cellSize` pixels square (row by row over a picture `width` pixels wide), the
// distinct seconds, ascending, at which a new event began in any of its pixels: pair p
// happens at floor(pairTimes[p]).
std::vector<std::vector<long long>> cellEventSeconds(const Analysis& analysis, int width, int height, int cellSize,
                                                    const std::vector<double>& pairTimes);

// Colour of the scale at intensity i as {R, G, B}, from the breakpoints of the scale.
struct Rgb {
    int r, g, b;
};
Rgb scale(int i);

// The map: one pixel at a time from the count and the R,G,B background.
QImage renderMap(const cv::Mat& counts, const cv::Mat& background);

} // namespace Reference
