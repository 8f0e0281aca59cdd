#include "FrameClock.h"
#include "MpegFrame.h"
#include "TestPictures.h"

#include <QtTest>

#include <memory>

namespace {

std::unique_ptr<MpegFrame> frameAt(double seconds)
{
    auto frame = std::make_unique<MpegFrame>(TestPictures::allocatePicture(AV_PIX_FMT_GRAY8, 2, 2));
    frame->m_presentationTime = seconds;
    frame->m_hasPresentationTime = true;
    return frame;
}

std::unique_ptr<MpegFrame> frameWithoutTime()
{
    return std::make_unique<MpegFrame>(TestPictures::allocatePicture(AV_PIX_FMT_GRAY8, 2, 2));
}

} // namespace

class FrameClockTest : public QObject {
    Q_OBJECT

private slots:
    void framesWithTimestampsTakeTheirOwn()
    {
        FrameClock clock(25.0);
        QCOMPARE(clock.timeOf(*frameAt(0.5)), 0.5);
        QCOMPARE(clock.timeOf(*frameAt(0.7)), 0.7);
        QCOMPARE(clock.timeOf(*frameAt(3.25)), 3.25);
    }

    void aVideoWithoutTimestampsRunsFromZeroAtItsFrameRate()
    {
        FrameClock clock(25.0);
        for (int i = 0; i < 60; ++i)
            QVERIFY(qAbs(clock.timeOf(*frameWithoutTime()) - i / 25.0) < 1e-9);
    }

    void aFrameWithoutTimestampFollowsTheOneBeforeByOneInterval()
    {
        FrameClock clock(10.0);
        QCOMPARE(clock.timeOf(*frameAt(4.0)), 4.0);
        QVERIFY(qAbs(clock.timeOf(*frameWithoutTime()) - 4.1) < 1e-9);
        QVERIFY(qAbs(clock.timeOf(*frameWithoutTime()) - 4.2) < 1e-9);
        QCOMPARE(clock.timeOf(*frameAt(9.0)), 9.0);
    }

    void withoutAFrameRateFramesWithoutTimestampKeepTheTimeBefore()
    {
        FrameClock clock(0.0);
        QCOMPARE(clock.timeOf(*frameAt(2.0)), 2.0);
        QCOMPARE(clock.timeOf(*frameWithoutTime()), 2.0);
    }
};

QTEST_GUILESS_MAIN(FrameClockTest)
#include "FrameClockTest.moc"
