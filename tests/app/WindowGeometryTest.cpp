#include <QtTest>

// Placeholder until the tests are written.
class WindowGeometryTest : public QObject {
    Q_OBJECT
};

QTEST_GUILESS_MAIN(WindowGeometryTest)
#include "WindowGeometryTest.moc"
