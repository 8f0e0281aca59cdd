#include "ThreadPriority.h"

#include <QtTest>

#include <algorithm>
#include <thread>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using ThreadPriority::kWeakest;

// Read straight from the system, so that the tests do not take the code under test's word.
int niceOfCallingThread()
{
    return getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
}

// Runs `work` on a thread of its own and waits for it.
template <typename Work>
void onThreadOfItsOwn(const Work& work)
{
    std::thread thread(work);
    thread.join();
}

} // namespace

class ThreadPriorityTest : public QObject {
    Q_OBJECT

private slots:
    void raisesTheNiceValueOfTheCallingThreadOnly()
    {
        const int mainBefore = niceOfCallingThread();
        int before = 0;
        int after = 0;
        bool lowered = false;
        onThreadOfItsOwn([&] {
            before = niceOfCallingThread();
            lowered = ThreadPriority::lowerCallingThread(3);
            after = niceOfCallingThread();
        });
        QVERIFY(lowered);
        QCOMPARE(after, std::min(before + 3, kWeakest));
        QVERIFY(after > before || before == kWeakest);
        QCOMPARE(niceOfCallingThread(), mainBefore);
    }

    void threadsStartedAfterwardsInheritIt()
    {
        int lowered = 0;
        int child = 0;
        onThreadOfItsOwn([&] {
            ThreadPriority::lowerCallingThread(ThreadPriority::kBelowDecoder);
            lowered = niceOfCallingThread();
            onThreadOfItsOwn([&] { child = niceOfCallingThread(); });
        });
        QVERIFY(lowered > 0);
        QCOMPARE(child, lowered);
    }

    void stopsAtTheWeakestPriority()
    {
        int after = 0;
        bool lowered = false;
        onThreadOfItsOwn([&] {
            lowered = ThreadPriority::lowerCallingThread(100);
            after = niceOfCallingThread();
        });
        QVERIFY(lowered);
        QCOMPARE(after, kWeakest);
    }
};

QTEST_GUILESS_MAIN(ThreadPriorityTest)
#include "ThreadPriorityTest.moc"
