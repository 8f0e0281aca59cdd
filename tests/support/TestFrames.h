#pragma once

#include "MpegFrame.h"

#include <QByteArray>

// Helpers for the tests of decoded pictures; they link the video library themselves.
namespace TestFrames {

// The picture's grey plane, row after row without padding.
inline QByteArray lumaOf(const MpegFrame& frame)
{
    QByteArray luma;
    for (int y = 0; y < frame.height(); ++y)
        luma.append(reinterpret_cast<const char*>(frame.data() + y * frame.step()), frame.width());
    return luma;
}

} // namespace TestFrames
