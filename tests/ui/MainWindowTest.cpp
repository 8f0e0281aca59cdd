#include "MainWindow.h"
#include "TestSupport.h"
#include "Tremora.h"

#include <QAction>
#include <QDesktopServices>
#include <QElapsedTimer>
#include <QListWidget>
#include <QPointer>
#include <QPushButton>
#include <QSettings>
#include <QStatusBar>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <vector>

namespace {

// A missing file: its job fails as soon as it starts.
const QString kMissing = QStringLiteral("/nonexistent/tremora-test/missing.mkv");

QListWidget* listOf(MainWindow& window)
{
    return window.findChild<QListWidget*>(QStringLiteral("mainList"));
}

QAction* actionOf(MainWindow& window, const char* name)
{
    return window.findChild<QAction*>(QString::fromLatin1(name));
}

QPushButton* buttonOf(MainWindow& window, const char* name)
{
    return window.findChild<QPushButton*>(QString::fromLatin1(name));
}

Tremora* jobAt(MainWindow& window, int row)
{
    return static_cast<Tremora*>(listOf(window)->item(row));
}

Tremora* lastJob(MainWindow& window)
{
    return jobAt(window, listOf(window)->count() - 1);
}

int stateOf(const Tremora* job)
{
    return job->m_state.load();
}

bool isFinal(const Tremora* job)
{
    return stateOf(job) >= Tremora::Done;
}

bool allFinal(MainWindow& window)
{
    for (int row = 0; row < listOf(window)->count(); ++row)
        if (!isFinal(jobAt(window, row)))
            return false;
    return true;
}

// The eight controls whose enabled state follows the list, as one comparable text.
QString guardedControls(MainWindow& window)
{
    QStringList parts;
    for (const char* name : {"actionRemoveSelected", "actionSaveMap", "actionOpenVideoFile",
                             "actionRemoveAll", "actionSaveAllMaps", "actionCancelProcessing"})
        parts << QStringLiteral("%1=%2").arg(QLatin1String(name)).arg(actionOf(window, name)->isEnabled());
    for (const char* name : {"pushButtonSaveAllMap", "pushButtonCancel"})
        parts << QStringLiteral("%1=%2").arg(QLatin1String(name)).arg(buttonOf(window, name)->isEnabled());
    return parts.join(QLatin1Char(' '));
}

QString expectedControls(bool anySelected, bool notEmpty, bool anyActive)
{
    return QStringLiteral("actionRemoveSelected=%1 actionSaveMap=%1 actionOpenVideoFile=%1 "
                          "actionRemoveAll=%2 actionSaveAllMaps=%2 actionCancelProcessing=%3 "
                          "pushButtonSaveAllMap=%2 pushButtonCancel=%3")
        .arg(anySelected)
        .arg(notEmpty)
        .arg(anyActive);
}

// Adds `paths` behind two jobs on `holder`, a clip long enough to keep the window's two pool
// threads busy, so every added job is still waiting when the window last evaluates its
// controls, however soon it will end. The holders, rows 0 and 1, are then stopped through
// their own flags, which the window does not watch. True once every job has ended.
bool runBehindHeldThreads(MainWindow& window, const QString& holder, const QStringList& paths)
{
    window.processFiles(QStringList{holder, holder} + paths);
    jobAt(window, 0)->m_cancel = -1;
    jobAt(window, 1)->m_cancel = -1;
    return QTest::qWaitFor([&window] { return allFinal(window); }, 20000);
}

bool makeClip(const QString& path, const QString& size, int frames)
{
    const QString source = QStringLiteral("testsrc=size=%1:rate=25").arg(size);
    return TestSupport::runFfmpeg({"-f", "lavfi", "-i", source, "-frames:v", QString::number(frames),
                                   "-c:v", "mpeg4", "-q:v", "8", path});
}

// Catches the URLs that the open action hands to the desktop, so no player starts and no
// error box blocks the test.
class UrlCatcher : public QObject {
    Q_OBJECT
public:
    UrlCatcher() { QDesktopServices::setUrlHandler(QStringLiteral("file"), this, "open"); }
    ~UrlCatcher() override { QDesktopServices::unsetUrlHandler(QStringLiteral("file")); }
    QList<QUrl> urls;
public slots:
    void open(const QUrl& url) { urls << url; }
};

} // namespace

class MainWindowTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void slotsFollowFormOrderInMetaObject();
    void emptyStartDisablesGuardedControlsAndShowsVersion();
    void firstRunOpensAt800x600AndClosingWritesBothKeys();
    void maximisedLastTimeOpensMaximised();
    void windowAcceptsDropsOnList();
    void addingOneFileAppendsSelectsEnablesAndStartsIt();
    void addedFilesJoinExistingSelection();
    void samePathTwiceGivesTwoJobs();
    void fiveFilesRunTwoAtATimeInOrderAdded();
    void cancelStaysEnabledAfterLastJobEnds();
    void cancelStaysEnabledUntilReevaluated_data();
    void cancelStaysEnabledUntilReevaluated();
    void cancelActsOnAllRowsSelectedOrNot_data();
    void cancelActsOnAllRowsSelectedOrNot();
    void selectionChangesGuardRemoveSaveAndOpen();
    void removeSelectedWithNothingSelectedRemovesNothingButReevaluates();
    void removingRunningJobDeletesItOnFirstTickAfterItEnds();
    void removedWaitingJobSurvivesTicksUntilItHasRun();
    void removeAllWithRowsInEveryStateEmptiesListAndReapsFinished();
    void repeatedRemovalsWhileJobsFinishLoseNoJob();
    void frameRateIsShownTruncatedForOneSecond();
    void zeroFrameRateShowsNoMessage();
    void resizingTo900x700SetsIconSize900x700();
    void returnDelAndEscReachTheirActions_data();
    void returnDelAndEscReachTheirActions();
    void doubleClickReachesSlotWithThatEntry();
    void selectionChangeReachesSlot();
    void thousandFilesAreAddedQuicklyAndRemovedCleanly();
    void destructionWhileTwoRunAndThreeWaitNeverStartsWaitingJobs();
    void removedQueuedJobDroppedAtDestructionIsDeleted();
    // Last: QCoreApplication::quit leaves later event loops returning at once.
    void quitActionEndsEventLoop();

private:
    QTemporaryDir m_clips;
    QString m_shortClip;
    QString m_mediumClip;
    QString m_longClip;
    std::unique_ptr<TestSupport::ScopedSettings> m_settings;
};

void MainWindowTest::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("tremora"));
    QCoreApplication::setApplicationName(QStringLiteral("tremora"));
    QVERIFY(m_clips.isValid());
    m_shortClip = m_clips.filePath(QStringLiteral("short.avi"));
    m_mediumClip = m_clips.filePath(QStringLiteral("medium.avi"));
    m_longClip = m_clips.filePath(QStringLiteral("long.avi"));
    QVERIFY(makeClip(m_shortClip, QStringLiteral("64x48"), 8));
    QVERIFY(makeClip(m_mediumClip, QStringLiteral("320x240"), 150));
    QVERIFY(makeClip(m_longClip, QStringLiteral("640x360"), 6000));
}

void MainWindowTest::init()
{
    m_settings = std::make_unique<TestSupport::ScopedSettings>();
}

void MainWindowTest::cleanup()
{
    m_settings.reset();
}

void MainWindowTest::slotsFollowFormOrderInMetaObject()
{
    const QMetaObject& meta = MainWindow::staticMetaObject;
    QCOMPARE(meta.className(), "MainWindow");
    QStringList slotSignatures;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        QCOMPARE(meta.method(i).methodType(), QMetaMethod::Slot);
        slotSignatures << QString::fromLatin1(meta.method(i).methodSignature());
    }
    QCOMPARE(slotSignatures,
             (QStringList{"updatePeriodic()", "on_actionAddFiles_triggered()",
                          "on_actionAddDirectory_triggered()", "on_actionQuit_triggered()",
                          "on_pushButtonCancel_clicked()",
                          "on_mainList_itemDoubleClicked(QListWidgetItem*)",
                          "on_actionRemoveSelected_triggered()", "on_actionRemoveAll_triggered()",
                          "on_mainList_itemSelectionChanged()", "on_actionCancelProcessing_triggered()",
                          "on_actionSaveMap_triggered()", "on_actionOpenVideoFile_triggered()",
                          "on_pushButtonSaveAllMap_clicked()", "on_actionSaveAllMaps_triggered()",
                          "on_pushButtonAddFiles_clicked()", "on_pushButtonAddDirectory_clicked()"}));
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
}

void MainWindowTest::emptyStartDisablesGuardedControlsAndShowsVersion()
{
    MainWindow window;
    QCOMPARE(guardedControls(window), expectedControls(false, false, false));
    for (const char* name : {"actionAddFiles", "actionAddDirectory", "actionQuit"})
        QVERIFY2(actionOf(window, name)->isEnabled(), name);
    for (const char* name : {"pushButtonAddFiles", "pushButtonAddDirectory"})
        QVERIFY2(buttonOf(window, name)->isEnabled(), name);
    QCOMPARE(window.windowTitle(), QStringLiteral("Tremora 1.0.8"));
    QCOMPARE(listOf(window)->count(), 0);
}

void MainWindowTest::firstRunOpensAt800x600AndClosingWritesBothKeys()
{
    {
        MainWindow window;
        QCOMPARE(window.size(), QSize(800, 600));
        QVERIFY(!window.isMaximized());
        QVERIFY(!window.isVisible());
        QVERIFY(!QSettings().contains(QStringLiteral("geometry_main_window")));
    }
    QSettings settings;
    QCOMPARE(settings.organizationName(), QStringLiteral("tremora"));
    QCOMPARE(settings.applicationName(), QStringLiteral("tremora"));
    QVERIFY(settings.contains(QStringLiteral("geometry_main_window")));
    QVERIFY(settings.contains(QStringLiteral("is_maximized_main_window")));
    QCOMPARE(settings.value(QStringLiteral("geometry_main_window")).toRect().size(), QSize(800, 600));
    QCOMPARE(settings.value(QStringLiteral("is_maximized_main_window")).toBool(), false);
}

void MainWindowTest::maximisedLastTimeOpensMaximised()
{
    {
        QSettings settings;
        settings.setValue(QStringLiteral("is_maximized_main_window"), true);
        settings.setValue(QStringLiteral("geometry_main_window"), QRect(10, 10, 450, 320));
    }
    MainWindow window;
    QVERIFY(window.isMaximized());
    QVERIFY(window.size() != QSize(450, 320));
}

void MainWindowTest::windowAcceptsDropsOnList()
{
    MainWindow window;
    QVERIFY(listOf(window)->acceptDrops());
}

void MainWindowTest::addingOneFileAppendsSelectsEnablesAndStartsIt()
{
    MainWindow window;
    window.processFile(kMissing);
    QTRY_VERIFY(allFinal(window));
    listOf(window)->clearSelection();

    // A long clip, so the job is surely still active when the window evaluates its controls.
    window.processFile(m_longClip);
    QCOMPARE(listOf(window)->count(), 2);
    Tremora* job = lastJob(window);
    QCOMPARE(job->m_path, m_longClip);
    QVERIFY(job->isSelected());
    QVERIFY(!jobAt(window, 0)->isSelected());
    QVERIFY(!job->autoDelete());
    QCOMPARE(job->m_iconSize, QSize(1280, 720));
    QCOMPARE(job->m_updateInterval, 300);
    QCOMPARE(guardedControls(window), expectedControls(true, true, true));
    QTRY_VERIFY_WITH_TIMEOUT(stateOf(job) != Tremora::Waiting, 20000);
}

void MainWindowTest::addedFilesJoinExistingSelection()
{
    MainWindow window;
    window.processFile(kMissing);
    window.processFile(kMissing);
    listOf(window)->clearSelection();
    jobAt(window, 0)->setSelected(true);
    window.processFiles({kMissing, kMissing});
    QCOMPARE(listOf(window)->count(), 4);
    QVERIFY(jobAt(window, 0)->isSelected());
    QVERIFY(!jobAt(window, 1)->isSelected());
    QVERIFY(jobAt(window, 2)->isSelected());
    QVERIFY(jobAt(window, 3)->isSelected());
}

void MainWindowTest::samePathTwiceGivesTwoJobs()
{
    MainWindow window;
    window.processFile(m_shortClip);
    window.processFile(m_shortClip);
    QCOMPARE(listOf(window)->count(), 2);
    QVERIFY(jobAt(window, 0) != jobAt(window, 1));
    QTRY_VERIFY_WITH_TIMEOUT(allFinal(window), 20000);
    QCOMPARE(stateOf(jobAt(window, 0)), int(Tremora::Done));
    QCOMPARE(stateOf(jobAt(window, 1)), int(Tremora::Done));
}

void MainWindowTest::fiveFilesRunTwoAtATimeInOrderAdded()
{
    MainWindow window;
    // The first job outlasts the others, so the other thread takes rows 2, 3 and 4 one
    // after the other, each once the one before has ended.
    window.processFiles({m_longClip, m_mediumClip, m_mediumClip, m_mediumClip, m_mediumClip});
    QList<int> startOrder;
    int mostActiveAtOnce = 0;
    QElapsedTimer elapsed;
    elapsed.start();
    while (startOrder.size() < 5 && elapsed.elapsed() < 40000) {
        int active = 0;
        for (int row = 0; row < 5; ++row) {
            const int state = stateOf(jobAt(window, row));
            if (state == Tremora::Processing)
                ++active;
            if (state != Tremora::Waiting && !startOrder.contains(row)) {
                startOrder << row;
                if (row >= 2) {
                    int ended = 0;
                    for (int earlier = 0; earlier < row; ++earlier)
                        ended += isFinal(jobAt(window, earlier)) ? 1 : 0;
                    QVERIFY2(ended >= row - 1, "a queued job started before a running one ended");
                }
            }
        }
        mostActiveAtOnce = std::max(mostActiveAtOnce, active);
        if (startOrder.size() == 2 && active == 2) {
            for (int row = 2; row < 5; ++row)
                QVERIFY(jobAt(window, row)->text().endsWith(QStringLiteral("(waiting...)")));
        }
        QTest::qWait(2);
    }
    QCOMPARE(startOrder.size(), 5);
    QVERIFY(startOrder.mid(0, 2) == (QList<int>{0, 1}) || startOrder.mid(0, 2) == (QList<int>{1, 0}));
    QCOMPARE(startOrder.mid(2), (QList<int>{2, 3, 4}));
    QVERIFY(mostActiveAtOnce <= 2);
    QCOMPARE(stateOf(jobAt(window, 0)), int(Tremora::Processing));
}

void MainWindowTest::cancelStaysEnabledAfterLastJobEnds()
{
    MainWindow window;
    QVERIFY(runBehindHeldThreads(window, m_longClip, {m_shortClip}));
    QCOMPARE(stateOf(jobAt(window, 2)), int(Tremora::Done));
    // Several ticks pass; none of them re-evaluates the controls.
    QTest::qWait(2200);
    QCOMPARE(guardedControls(window), expectedControls(true, true, true));
}

void MainWindowTest::cancelStaysEnabledUntilReevaluated_data()
{
    QTest::addColumn<QString>("trigger");
    QTest::addColumn<bool>("selectedAfter");
    QTest::addColumn<bool>("notEmptyAfter");
    QTest::newRow("selection changes") << "selection" << false << true;
    QTest::newRow("row removed") << "remove" << false << false;
    QTest::newRow("cancel action") << "cancelAction" << true << true;
    QTest::newRow("cancel button") << "cancelButton" << true << true;
}

void MainWindowTest::cancelStaysEnabledUntilReevaluated()
{
    QFETCH(QString, trigger);
    QFETCH(bool, selectedAfter);
    QFETCH(bool, notEmptyAfter);

    MainWindow window;
    QVERIFY(runBehindHeldThreads(window, m_longClip, {m_shortClip}));
    QCOMPARE(guardedControls(window), expectedControls(true, true, true));

    if (trigger == QLatin1String("selection"))
        listOf(window)->clearSelection();
    else if (trigger == QLatin1String("remove"))
        actionOf(window, "actionRemoveSelected")->trigger();
    else if (trigger == QLatin1String("cancelAction"))
        actionOf(window, "actionCancelProcessing")->trigger();
    else
        buttonOf(window, "pushButtonCancel")->click();

    QCOMPARE(guardedControls(window), expectedControls(selectedAfter, notEmptyAfter, false));
    if (trigger.startsWith(QLatin1String("cancel"))) {
        QCOMPARE(jobAt(window, 2)->m_cancel.load(), -1);
        QCOMPARE(stateOf(jobAt(window, 2)), int(Tremora::Done));
    }
}

void MainWindowTest::cancelActsOnAllRowsSelectedOrNot_data()
{
    QTest::addColumn<QString>("trigger");
    QTest::newRow("action") << "action";
    QTest::newRow("button") << "button";
    QTest::newRow("cancelAll") << "cancelAll";
}

void MainWindowTest::cancelActsOnAllRowsSelectedOrNot()
{
    QFETCH(QString, trigger);
    MainWindow window;
    window.processFiles({m_longClip, m_longClip, m_longClip});
    listOf(window)->clearSelection();
    jobAt(window, 1)->setSelected(true);
    QCOMPARE(guardedControls(window), expectedControls(true, true, true));

    if (trigger == QLatin1String("action"))
        actionOf(window, "actionCancelProcessing")->trigger();
    else if (trigger == QLatin1String("button"))
        buttonOf(window, "pushButtonCancel")->click();
    else
        window.cancelAll();

    for (int row = 0; row < 3; ++row)
        QCOMPARE(jobAt(window, row)->m_cancel.load(), -1);
    QCOMPARE(guardedControls(window), expectedControls(true, true, false));
    // The queued third job still starts in its turn and ends canceled at once.
    QTRY_VERIFY_WITH_TIMEOUT(allFinal(window), 20000);
    for (int row = 0; row < 3; ++row) {
        QCOMPARE(stateOf(jobAt(window, row)), int(Tremora::Canceled));
        // The row's text follows the state through the GUI thread's event queue.
        QTRY_VERIFY(jobAt(window, row)->text().endsWith(QStringLiteral("(canceled)")));
    }
}

void MainWindowTest::selectionChangesGuardRemoveSaveAndOpen()
{
    MainWindow window;
    QVERIFY(runBehindHeldThreads(window, m_longClip, {kMissing, kMissing}));

    // Every job has ended by now, but only the selection change shows it.
    QCOMPARE(guardedControls(window), expectedControls(true, true, true));
    listOf(window)->clearSelection();
    QCOMPARE(guardedControls(window), expectedControls(false, true, false));
    jobAt(window, 1)->setSelected(true);
    QCOMPARE(guardedControls(window), expectedControls(true, true, false));
    jobAt(window, 1)->setSelected(false);
    QCOMPARE(guardedControls(window), expectedControls(false, true, false));
}

void MainWindowTest::removeSelectedWithNothingSelectedRemovesNothingButReevaluates()
{
    MainWindow window;
    window.processFile(m_mediumClip);
    listOf(window)->clearSelection();
    QCOMPARE(guardedControls(window), expectedControls(false, true, true));
    QTRY_VERIFY_WITH_TIMEOUT(allFinal(window), 20000);
    QVERIFY2(actionOf(window, "actionCancelProcessing")->isEnabled(),
             "the clip ended before the selection was cleared; the stale state was not set up");

    QVERIFY(QMetaObject::invokeMethod(&window, "on_actionRemoveSelected_triggered"));
    QCOMPARE(listOf(window)->count(), 1);
    QCOMPARE(guardedControls(window), expectedControls(false, true, false));
}

void MainWindowTest::removingRunningJobDeletesItOnFirstTickAfterItEnds()
{
    MainWindow window;
    window.processFiles({m_longClip, m_shortClip});
    Tremora* running = jobAt(window, 0);
    QPointer<Tremora> watched(running);
    QTRY_VERIFY_WITH_TIMEOUT(stateOf(running) == Tremora::Processing, 20000);

    listOf(window)->clearSelection();
    running->setSelected(true);
    actionOf(window, "actionRemoveSelected")->trigger();
    QCOMPARE(listOf(window)->count(), 1);
    QCOMPARE(jobAt(window, 0)->m_path, m_shortClip);
    QVERIFY(!watched.isNull());
    QCOMPARE(running->m_cancel.load(), -1);
    QVERIFY(running->listWidget() == nullptr);

    // Alive until its pass has recorded the end; gone within a tick of that.
    QElapsedTimer sinceEnd;
    while (!watched.isNull()) {
        if (!sinceEnd.isValid() && isFinal(watched))
            sinceEnd.start();
        QVERIFY2(!sinceEnd.isValid() || sinceEnd.elapsed() < 2500, "not deleted after it ended");
        QTest::qWait(5);
    }
}

void MainWindowTest::removedWaitingJobSurvivesTicksUntilItHasRun()
{
    MainWindow window;
    window.processFiles({m_longClip, m_longClip, m_shortClip});
    QTRY_VERIFY_WITH_TIMEOUT(stateOf(jobAt(window, 0)) == Tremora::Processing
                                 && stateOf(jobAt(window, 1)) == Tremora::Processing,
                             20000);
    Tremora* waiting = jobAt(window, 2);
    QPointer<Tremora> watched(waiting);
    listOf(window)->clearSelection();
    waiting->setSelected(true);
    actionOf(window, "actionRemoveSelected")->trigger();
    QCOMPARE(listOf(window)->count(), 2);

    window.updatePeriodic();
    window.updatePeriodic();
    QVERIFY2(!watched.isNull(), "a removed job was deleted before its pass had run");
    QCOMPARE(stateOf(waiting), int(Tremora::Waiting));

    // Once a thread is free the pool still runs it; it ends canceled and the tick reaps it.
    window.cancelAll();
    QTRY_VERIFY_WITH_TIMEOUT(watched.isNull(), 20000);
}

void MainWindowTest::removeAllWithRowsInEveryStateEmptiesListAndReapsFinished()
{
    MainWindow window;
    window.processFiles({m_shortClip, kMissing});
    QTRY_VERIFY_WITH_TIMEOUT(allFinal(window), 20000);
    window.processFile(m_longClip);
    QTRY_VERIFY_WITH_TIMEOUT(stateOf(lastJob(window)) == Tremora::Processing, 20000);
    window.cancelAll();
    QTRY_VERIFY_WITH_TIMEOUT(allFinal(window), 20000);
    window.processFiles({m_longClip, m_longClip, m_longClip});
    QTRY_VERIFY_WITH_TIMEOUT(stateOf(jobAt(window, 3)) == Tremora::Processing
                                 && stateOf(jobAt(window, 4)) == Tremora::Processing,
                             20000);

    QList<int> states;
    QList<QPointer<Tremora>> jobs;
    for (int row = 0; row < listOf(window)->count(); ++row) {
        states << stateOf(jobAt(window, row));
        jobs << QPointer<Tremora>(jobAt(window, row));
    }
    QCOMPARE(states, (QList<int>{Tremora::Done, Tremora::Failed, Tremora::Canceled,
                                 Tremora::Processing, Tremora::Processing, Tremora::Waiting}));
    listOf(window)->clearSelection();

    actionOf(window, "actionRemoveAll")->trigger();
    QCOMPARE(listOf(window)->count(), 0);
    QCOMPARE(guardedControls(window), expectedControls(false, false, false));
    for (const QPointer<Tremora>& job : jobs)
        QVERIFY(!job.isNull());

    window.updatePeriodic();
    for (int i = 0; i < 3; ++i)
        QVERIFY2(jobs.at(i).isNull(), "a finished job outlived the tick after its removal");
    for (const QPointer<Tremora>& job : jobs)
        QTRY_VERIFY_WITH_TIMEOUT(job.isNull(), 20000);
}

void MainWindowTest::repeatedRemovalsWhileJobsFinishLoseNoJob()
{
    QList<QPointer<Tremora>> everyJob;
    {
        MainWindow window;
        QListWidget* list = listOf(window);
        const QStringList mix{m_shortClip, kMissing, m_mediumClip, m_longClip, m_shortClip};
        for (int round = 0; round < 6; ++round) {
            for (const QString& path : mix) {
                window.processFile(path);
                everyJob << QPointer<Tremora>(lastJob(window));
            }
            list->clearSelection();
            for (int row = round % 2; row < list->count(); row += 2)
                jobAt(window, row)->setSelected(true);
            actionOf(window, "actionRemoveSelected")->trigger();
            if (round % 3 == 1)
                actionOf(window, "actionRemoveAll")->trigger();
            window.updatePeriodic();
            QTest::qWait(40);
        }
        QVERIFY(list->count() > 0);
    }
    for (const QPointer<Tremora>& job : everyJob)
        QVERIFY2(job.isNull(), "a job outlived the window");
}

void MainWindowTest::frameRateIsShownTruncatedForOneSecond()
{
    MainWindow window;
    QStatusBar* statusBar = window.statusBar();
    AtomicCounter& counter = Tremora::globalCounter;
    counter.getCountPerSecond();
    // 129 frame pairs over ten seconds and a few milliseconds: just under 12.9 a second.
    counter.m_time = QTime::currentTime().addMSecs(-10000);
    for (int i = 0; i < 129; ++i)
        counter.increment();

    QElapsedTimer shown;
    shown.start();
    window.updatePeriodic();
    QCOMPARE(statusBar->currentMessage(), QStringLiteral("Frames per second: 12"));
    QTRY_VERIFY_WITH_TIMEOUT(statusBar->currentMessage().isEmpty(), 3000);
    QVERIFY2(shown.elapsed() >= 950, qPrintable(QString::number(shown.elapsed())));
}

void MainWindowTest::zeroFrameRateShowsNoMessage()
{
    MainWindow window;
    QStatusBar* statusBar = window.statusBar();
    AtomicCounter& counter = Tremora::globalCounter;
    counter.getCountPerSecond();
    counter.m_time = QTime::currentTime().addMSecs(-1000);
    window.updatePeriodic();
    QCOMPARE(statusBar->currentMessage(), QString());
}

void MainWindowTest::resizingTo900x700SetsIconSize900x700()
{
    MainWindow window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    window.resize(900, 700);
    QTRY_COMPARE(window.size(), QSize(900, 700));
    QCOMPARE(listOf(window)->iconSize(), QSize(900, 700));
    window.resize(500, 400);
    QTRY_COMPARE(listOf(window)->iconSize(), QSize(500, 400));
}

void MainWindowTest::returnDelAndEscReachTheirActions_data()
{
    QTest::addColumn<bool>("focusOnList");
    QTest::newRow("keys to the window") << false;
    QTest::newRow("keys to the focused list") << true;
}

void MainWindowTest::returnDelAndEscReachTheirActions()
{
    QFETCH(bool, focusOnList);
    UrlCatcher urls;
    MainWindow window;
    window.show();
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    window.processFiles({m_longClip, m_longClip});
    QWidget* target = &window;
    if (focusOnList) {
        listOf(window)->setFocus();
        QTRY_VERIFY(listOf(window)->hasFocus());
        target = listOf(window);
    }

    QSignalSpy openSpy(actionOf(window, "actionOpenVideoFile"), &QAction::triggered);
    QTest::keyClick(target, Qt::Key_Return);
    QCOMPARE(openSpy.count(), 1);
    QCOMPARE(urls.urls.size(), 2);

    QSignalSpy cancelSpy(actionOf(window, "actionCancelProcessing"), &QAction::triggered);
    QTest::keyClick(target, Qt::Key_Escape);
    QCOMPARE(cancelSpy.count(), 1);
    QCOMPARE(jobAt(window, 0)->m_cancel.load(), -1);
    QCOMPARE(jobAt(window, 1)->m_cancel.load(), -1);

    listOf(window)->clearSelection();
    jobAt(window, 1)->setSelected(true);
    QSignalSpy removeSpy(actionOf(window, "actionRemoveSelected"), &QAction::triggered);
    QTest::keyClick(target, Qt::Key_Delete);
    QCOMPARE(removeSpy.count(), 1);
    QCOMPARE(listOf(window)->count(), 1);
}

void MainWindowTest::doubleClickReachesSlotWithThatEntry()
{
    UrlCatcher urls;
    MainWindow window;
    window.processFiles({kMissing, kMissing});
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QListWidget* list = listOf(window);
    QListWidgetItem* second = list->item(1);
    list->scrollToItem(second, QAbstractItemView::PositionAtTop);
    QTRY_VERIFY(list->viewport()->rect().intersects(list->visualItemRect(second)));
    const QRect shownPart = list->viewport()->rect() & list->visualItemRect(second);

    QList<QListWidgetItem*> doubleClicked;
    connect(list, &QListWidget::itemDoubleClicked, this,
            [&doubleClicked](QListWidgetItem* item) { doubleClicked << item; });
    // A real double click: the first click selects, the second press arrives as a double click.
    QTest::mouseClick(list->viewport(), Qt::LeftButton, Qt::NoModifier, shownPart.center());
    QTest::mouseDClick(list->viewport(), Qt::LeftButton, Qt::NoModifier, shownPart.center());
    QCOMPARE(doubleClicked, QList<QListWidgetItem*>{second});
    QCOMPARE(urls.urls, QList<QUrl>{QUrl::fromLocalFile(kMissing)});
    // The by-name wiring: only an existing connection can be taken apart.
    QVERIFY(QObject::disconnect(list, SIGNAL(itemDoubleClicked(QListWidgetItem*)), &window,
                                SLOT(on_mainList_itemDoubleClicked(QListWidgetItem*))));
}

void MainWindowTest::selectionChangeReachesSlot()
{
    MainWindow window;
    window.processFile(kMissing);
    QListWidget* list = listOf(window);
    QVERIFY(actionOf(window, "actionRemoveSelected")->isEnabled());
    list->clearSelection();
    QVERIFY(!actionOf(window, "actionRemoveSelected")->isEnabled());
    list->item(0)->setSelected(true);
    QVERIFY(actionOf(window, "actionRemoveSelected")->isEnabled());
    QVERIFY(QObject::disconnect(list, SIGNAL(itemSelectionChanged()), &window,
                                SLOT(on_mainList_itemSelectionChanged())));
    list->clearSelection();
    QVERIFY(actionOf(window, "actionRemoveSelected")->isEnabled());
}

void MainWindowTest::thousandFilesAreAddedQuicklyAndRemovedCleanly()
{
    MainWindow window;
    window.processFiles({m_longClip, m_longClip});
    QStringList paths;
    for (int i = 0; i < 1000; ++i)
        paths << m_shortClip;

    QElapsedTimer adding;
    adding.start();
    window.processFiles(paths);
    const qint64 addMs = adding.elapsed();
    qInfo("adding 1000 files took %lld ms", addMs);
    QCOMPARE(listOf(window)->count(), 1002);
    QCOMPARE(listOf(window)->selectedItems().size(), 1002);
    QCOMPARE(jobAt(window, 1001)->text(), QStringLiteral("short.avi (waiting...)"));
    // Far beyond any normal machine; trips only on work that grows with the square of
    // the rows or worse.
    QVERIFY2(addMs < 30000, qPrintable(QString::number(addMs)));

    QElapsedTimer removing;
    removing.start();
    actionOf(window, "actionRemoveAll")->trigger();
    qInfo("removing them took %lld ms", removing.elapsed());
    QCOMPARE(listOf(window)->count(), 0);
    QVERIFY2(removing.elapsed() < 30000, qPrintable(QString::number(removing.elapsed())));
}

void MainWindowTest::destructionWhileTwoRunAndThreeWaitNeverStartsWaitingJobs()
{
    auto* window = new MainWindow;
    window->processFiles({m_longClip, m_longClip, m_longClip, m_longClip, m_longClip});
    QTRY_VERIFY_WITH_TIMEOUT(stateOf(jobAt(*window, 0)) == Tremora::Processing
                                 && stateOf(jobAt(*window, 1)) == Tremora::Processing,
                             20000);
    std::vector<Tremora*> waiting;
    for (int row = 2; row < 5; ++row) {
        waiting.push_back(jobAt(*window, row));
        QCOMPARE(stateOf(waiting.back()), int(Tremora::Waiting));
    }
    window->resize(640, 480);

    // The list deletes its rows only after the window has stopped the pool, so the states
    // read when it starts doing so are the last ones the jobs ever had. A job that started,
    // even one that saw the cancel flag at once, would have left Waiting.
    QList<int> statesAtTeardown;
    QList<int> runningStatesAtTeardown;
    Tremora* firstRunning = jobAt(*window, 0);
    Tremora* secondRunning = jobAt(*window, 1);
    connect(listOf(*window)->model(), &QAbstractItemModel::modelAboutToBeReset, this, [&] {
        for (const Tremora* job : waiting)
            statesAtTeardown << stateOf(job);
        runningStatesAtTeardown << stateOf(firstRunning) << stateOf(secondRunning);
    });

    QElapsedTimer destroying;
    destroying.start();
    delete window;
    const qint64 destroyMs = destroying.elapsed();
    QVERIFY2(destroyMs < 5000, qPrintable(QString::number(destroyMs)));

    QCOMPARE(statesAtTeardown, (QList<int>{Tremora::Waiting, Tremora::Waiting, Tremora::Waiting}));
    QCOMPARE(runningStatesAtTeardown, (QList<int>{Tremora::Canceled, Tremora::Canceled}));
    QSettings settings;
    QCOMPARE(settings.value(QStringLiteral("geometry_main_window")).toRect().size(), QSize(640, 480));
    QVERIFY(settings.contains(QStringLiteral("is_maximized_main_window")));
}

void MainWindowTest::removedQueuedJobDroppedAtDestructionIsDeleted()
{
    QPointer<Tremora> removedWaiting;
    QPointer<Tremora> removedRunning;
    {
        MainWindow window;
        window.processFiles({m_longClip, m_longClip, m_shortClip});
        QTRY_VERIFY_WITH_TIMEOUT(stateOf(jobAt(window, 0)) == Tremora::Processing
                                     && stateOf(jobAt(window, 1)) == Tremora::Processing,
                                 20000);
        removedRunning = jobAt(window, 0);
        removedWaiting = jobAt(window, 2);
        listOf(window)->clearSelection();
        removedRunning->setSelected(true);
        removedWaiting->setSelected(true);
        actionOf(window, "actionRemoveSelected")->trigger();
        QCOMPARE(listOf(window)->count(), 1);
        QVERIFY(!removedWaiting.isNull());
    }
    QVERIFY(removedRunning.isNull());
    QVERIFY(removedWaiting.isNull());
}

void MainWindowTest::quitActionEndsEventLoop()
{
    MainWindow window;
    QEventLoop loop;
    QTimer::singleShot(0, actionOf(window, "actionQuit"), &QAction::trigger);
    QTimer::singleShot(10000, &loop, [&loop] { loop.exit(1); });
    QCOMPARE(loop.exec(), 0);
}

QTEST_MAIN(MainWindowTest)
#include "MainWindowTest.moc"
