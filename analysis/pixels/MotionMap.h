#pragma once

#include <QImage>

#include <opencv2/core/mat.hpp>

#include <array>
#include <cstdint>

// The blue-cyan-yellow-red colour scale of the map, indexed by an intensity 0..255.
extern const std::array<unsigned char, 256> ColorMap_R;
extern const std::array<unsigned char, 256> ColorMap_G;
extern const std::array<unsigned char, 256> ColorMap_B;

namespace MotionMap {

// Events that reach the top of the window's scale: 255 / 30, so that the general rule below
// gives the window's 30 per event.
constexpr double kDefaultScale = 8.5;

// Intensity of a pixel with `eventCount` motion events: 30 per event, 255 from nine events on.
int intensity(int eventCount);

// Intensity when `scale` events reach the top: min(count x 255 / scale, 255), rounded down.
// With kDefaultScale it equals intensity(int). `scale` must be positive.
int intensity(std::int64_t eventCount, double scale);

// Renders the map: every pixel's event count as a colour of the scale, laid over a darkened
// grey copy of the background (half its mean brightness), channels clamped at 255.
// `motionCount` is 8-bit 1-channel, `background` 8-bit 3-channel R,G,B of the same size.
// Returns a Format_RGB888 image of that size, or a null image when either matrix holds no
// data or they do not match. Reentrant: any thread, no shared state.
QImage render(const cv::Mat& motionCount, const cv::Mat& background);

// The same map from exact counts (16-bit or 32-bit signed 1-channel, no wrap) on a scale whose
// top is reached at `scale` events (positive). With kDefaultScale and counts below 256 it is
// the map of render() pixel for pixel. A null image as render() gives one. Reentrant.
QImage render(const cv::Mat& eventCounts, const cv::Mat& background, double scale);

// Renders what render(eventCounts, background, scale) gives into the top-left corner of
// `target`, a Format_RGB888 image at least that large, and leaves its other pixels as they
// are: a film, which shows the map again and again, keeps one picture for all of them. False,
// with `target` untouched, where render() gives a null image or `target` does not fit.
// Reentrant.
bool renderInto(QImage& target, const cv::Mat& eventCounts, const cv::Mat& background, double scale);

} // namespace MotionMap
