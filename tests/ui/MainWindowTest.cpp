#include <QtTest>

// Placeholder until the tests are written.
class MainWindowTest : public QObject {
    Q_OBJECT
};

QTEST_GUILESS_MAIN(MainWindowTest)
#include "MainWindowTest.moc"
