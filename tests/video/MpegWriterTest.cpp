#include <QtTest>

// Placeholder until the tests are written.
class MpegWriterTest : public QObject {
    Q_OBJECT
};

QTEST_GUILESS_MAIN(MpegWriterTest)
#include "MpegWriterTest.moc"
