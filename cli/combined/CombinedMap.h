#pragma once

#include <opencv2/core/mat.hpp>

#include <QMutex>

#include <climits>

// The sum of every input of --combine: one 32-bit count plane and one background, whatever
// the number of inputs, filled as the inputs finish in any order.
//
// add() may be called from any thread; the rest once every add() has returned.
class CombinedMap {
public:
    explicit CombinedMap(cv::Size size);

    // Adds the exact counts (16-bit or 32-bit signed, 1 channel) of the input at `index` (its
    // place in the order given) and keeps its background (8-bit, 3 channels) when no input
    // before it has given one. False, and nothing added, when either is not of the map's size;
    // an empty background is taken as "not needed" (see wantsBackground).
    bool add(int index, const cv::Mat& counts, const cv::Mat& background);

    // Whether the background of the input at `index` could still be the one kept: no input
    // before it has given one so far. An input for which this is false may add() an empty
    // background. Any thread.
    bool wantsBackground(int index);

    cv::Size size() const { return m_size; }
    // The summed counts, 32-bit signed; zero where nothing was added.
    const cv::Mat& sum() const { return m_sum; }
    // The background of the earliest input added; black when none was.
    const cv::Mat& background() const { return m_background; }
    // Inputs added so far.
    int inputs() const { return m_inputs; }

private:
    cv::Size m_size;
    QMutex m_mutex;
    cv::Mat m_sum;
    cv::Mat m_background;
    int m_backgroundIndex = INT_MAX;
    int m_inputs = 0;
};
