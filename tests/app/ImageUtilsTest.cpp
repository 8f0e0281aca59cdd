#include <QtTest>

// Placeholder until the tests are written.
class ImageUtilsTest : public QObject {
    Q_OBJECT
};

QTEST_GUILESS_MAIN(ImageUtilsTest)
#include "ImageUtilsTest.moc"
