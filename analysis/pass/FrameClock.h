#pragma once

class MpegFrame;

// The time of each frame of a pass, in seconds from the video's start: the frame's own
// presentation time where it has one (MpegFrame::m_presentationTime); for a frame without,
// the time of the frame before plus one frame interval, so that a video without any
// timestamps runs from 0 at its frame rate. Used by the thread running the pass only.
class FrameClock {
public:
    // `frameRate` in frames a second; 0 or less when unknown, and frames without timestamps
    // then all take the time of the frame before.
    explicit FrameClock(double frameRate);

    // The time of `frame`; call once for every frame read, in the order read.
    double timeOf(const MpegFrame& frame);

private:
    double m_interval;
    double m_last = 0.0;
    bool m_started = false;
};
