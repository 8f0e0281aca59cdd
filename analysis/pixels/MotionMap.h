#pragma once

#include <QImage>

#include <opencv2/core/mat.hpp>

#include <array>

// The blue-cyan-yellow-red colour scale of the map, indexed by an intensity 0..255.
extern const std::array<unsigned char, 256> ColorMap_R;
extern const std::array<unsigned char, 256> ColorMap_G;
extern const std::array<unsigned char, 256> ColorMap_B;

namespace MotionMap {

// Intensity of a pixel with `eventCount` motion events: 30 per event, 255 from nine events on.
int intensity(int eventCount);

// Renders the map: every pixel's event count as a colour of the scale, laid over a darkened
// grey copy of the background (half its mean brightness), channels clamped at 255.
// `motionCount` is 8-bit 1-channel, `background` 8-bit 3-channel R,G,B of the same size.
// Returns a Format_RGB888 image of that size, or a null image when either matrix holds no
// data or they do not match. Reentrant: any thread, no shared state.
QImage render(const cv::Mat& motionCount, const cv::Mat& background);

} // namespace MotionMap
