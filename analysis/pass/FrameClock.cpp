#include "FrameClock.h"

#include "MpegFrame.h"

FrameClock::FrameClock(double frameRate)
    : m_interval(frameRate > 0.0 ? 1.0 / frameRate : 0.0)
{
}

double FrameClock::timeOf(const MpegFrame& frame)
{
    if (frame.m_hasPresentationTime)
        m_last = frame.m_presentationTime;
    else if (m_started)
        m_last += m_interval;
    m_started = true;
    return m_last;
}
