#include "CancelSignals.h"

#include <QtTest>

#include <csignal>

namespace {

bool handledByUs(int signalNumber)
{
    struct sigaction current = {};
    return ::sigaction(signalNumber, nullptr, &current) == 0 && current.sa_handler != SIG_DFL
        && current.sa_handler != SIG_IGN;
}

} // namespace

class CancelSignalsTest : public QObject {
    Q_OBJECT

private slots:
    void firstSignalIsRecordedAndTheSecondEndsTheProgram();
};

void CancelSignalsTest::firstSignalIsRecordedAndTheSecondEndsTheProgram()
{
    QCOMPARE(CancelSignals::flag().load(), 0);
    QVERIFY(CancelSignals::install());
    QVERIFY(handledByUs(SIGINT));
    QVERIFY(handledByUs(SIGTERM));

    QCOMPARE(::raise(SIGINT), 0);
    QCOMPARE(CancelSignals::flag().load(), SIGINT);
    // The next Ctrl+C is the system's again; the other signal still only cancels.
    QVERIFY(!handledByUs(SIGINT));
    QVERIFY(handledByUs(SIGTERM));

    QCOMPARE(::raise(SIGTERM), 0);
    QCOMPARE(CancelSignals::flag().load(), SIGINT); // the first one decides the exit status
    QVERIFY(!handledByUs(SIGTERM));
}

QTEST_GUILESS_MAIN(CancelSignalsTest)
#include "CancelSignalsTest.moc"
