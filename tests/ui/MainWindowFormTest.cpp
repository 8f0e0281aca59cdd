#include <QtTest>

// Placeholder until the tests are written.
class MainWindowFormTest : public QObject {
    Q_OBJECT
};

QTEST_GUILESS_MAIN(MainWindowFormTest)
#include "MainWindowFormTest.moc"
