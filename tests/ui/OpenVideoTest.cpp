#include <QtTest>

// Placeholder until the tests are written.
class OpenVideoTest : public QObject {
    Q_OBJECT
};

QTEST_GUILESS_MAIN(OpenVideoTest)
#include "OpenVideoTest.moc"
