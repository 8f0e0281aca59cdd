#include <QtTest>

// Placeholder until the tests are written.
class MpegFrameTest : public QObject {
    Q_OBJECT
};

QTEST_GUILESS_MAIN(MpegFrameTest)
#include "MpegFrameTest.moc"
