#include <QtTest>

// Placeholder until the tests are written.
class MapExportTest : public QObject {
    Q_OBJECT
};

QTEST_GUILESS_MAIN(MapExportTest)
#include "MapExportTest.moc"
