#include <QtTest>

// Placeholder until the tests are written.
class MpegReaderTest : public QObject {
    Q_OBJECT
};

QTEST_GUILESS_MAIN(MpegReaderTest)
#include "MpegReaderTest.moc"
