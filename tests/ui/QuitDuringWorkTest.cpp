#include "MainWindow.h"
#include "PipeFeeder.h"
#include "TestSupport.h"
#include "Tremora.h"
#include "UiTestSupport.h"
#include "WindowStress.h"

#include <QAction>
#include <QElapsedTimer>
#include <QFile>
#include <QFileDialog>
#include <QListWidget>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>
#include <QVector>
#include <QtTest>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#include <sys/types.h>

// Quitting while analyses run and others wait: the window must close within about one
// frame pair of the running passes, not after the videos, and leave a complete settings
// file, whether it is destroyed directly, through the Quit action, with a dialog open, after
// a random session, or as the real program ended by SIGTERM.
namespace {

using UiTestSupport::jobAt;
using UiTestSupport::stateOf;

// One pass on this clip takes seconds, many times the bounds below.
const QSize kLongSize(320, 240);
constexpr int kLongFrames = 60000;
constexpr int kRunning = 2;
constexpr int kWaiting = 5;
constexpr int kStartTimeoutMs = 30000;
constexpr int kLoopTimeoutMs = 30000;

#ifdef __SANITIZE_ADDRESS__
constexpr qint64 kCloseBoundMs = 3000;
constexpr qint64 kProgramExitBoundMs = 15000;
#else
constexpr qint64 kCloseBoundMs = 1000;
constexpr qint64 kProgramExitBoundMs = 5000;
#endif

// Settings that the window does not own; a complete file still holds them afterwards.
// Neither is written by the flows the tests use.
const QString kKeptDir = QStringLiteral("/kept/by/the/window");
const QString kKeptFilesDir = QStringLiteral("/kept/files/folder");
const QSize kWindowSize(720, 540);

const QString kGeometryKey = QStringLiteral("geometry_main_window");
const QString kMaximizedKey = QStringLiteral("is_maximized_main_window");

bool rowsProcessing(QListWidget* list, int rows)
{
    for (int row = 0; row < rows; ++row)
        if (row >= list->count() || stateOf(jobAt(list, row)) != Tremora::Processing)
            return false;
    return true;
}

bool anyRowProcessing(QListWidget* list)
{
    for (int row = 0; row < list->count(); ++row)
        if (stateOf(jobAt(list, row)) == Tremora::Processing)
            return true;
    return false;
}

} // namespace

class QuitDuringWorkTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void destroyingWithTwoRunningAndFiveWaitingReturnsWithinAFramePair();
    void quitActionWithJobsRunningEndsLoopAndWindowClosesPromptly();
    void quitWhileSaveDialogIsOpenWritesNothingAndClosesPromptly();
    void geometryIsSavedBeforeTheWindowWaitsForItsRunningJob();
    void quitAfterRandomOperationsDeletesEveryJobOnceAndClosesPromptly();
    void programEndsOnSigtermMidRunWithCompleteSettings();

private:
    // A shown window of kWindowSize with two long jobs running and five waiting.
    void openBusyWindow();
    // Ends the event loop through the Quit action `afterMs` from now, as a user would.
    void quitThroughActionAndLoop(int afterMs);
    // Destroys the window, measuring how long the destructor takes. With
    // `waitingNeverStart`, the rows waiting now must still be waiting when the list goes.
    void closeWindowWithinBound(bool waitingNeverStart);
    void checkSettingsComplete(const QString& file, const QRect& expectedGeometry);

    QTemporaryDir m_clipFolder;
    QString m_longClip;
    QList<WindowStress::Clip> m_clips;
    std::unique_ptr<TestSupport::ScopedSettings> m_settings;
    std::unique_ptr<WindowStress::JobLedger> m_ledger;
    std::unique_ptr<MainWindow> m_window;
    QListWidget* m_list = nullptr;
    QString m_settingsFile;
};

void QuitDuringWorkTest::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QCoreApplication::setOrganizationName(QStringLiteral("tremora"));
    QCoreApplication::setApplicationName(QStringLiteral("tremora"));
    QVERIFY(m_clipFolder.isValid());
    m_clips = WindowStress::writeClips(m_clipFolder.path(), kLongSize, kLongFrames);
    QVERIFY(!m_clips.isEmpty());
    m_longClip = m_clips.last().path;
}

void QuitDuringWorkTest::init()
{
    m_settings = std::make_unique<TestSupport::ScopedSettings>();
    m_ledger = std::make_unique<WindowStress::JobLedger>();
    QSettings settings;
    settings.setValue(QStringLiteral("last_dir"), kKeptDir);
    settings.setValue(QStringLiteral("last_files"), kKeptFilesDir);
    m_settingsFile = settings.fileName();
}

void QuitDuringWorkTest::cleanup()
{
    if (m_ledger)
        m_ledger->windowClosing();
    m_window.reset();
    m_ledger.reset();
    m_settings.reset();
}

void QuitDuringWorkTest::openBusyWindow()
{
    m_window = std::make_unique<MainWindow>();
    m_list = UiTestSupport::mainList(*m_window);
    m_window->show();
    m_window->resize(kWindowSize);
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    for (int i = 0; i < kRunning + kWaiting; ++i) {
        m_window->processFile(m_longClip);
        m_ledger->adopt(jobAt(m_list, m_list->count() - 1), m_longClip);
    }
    QTRY_VERIFY_WITH_TIMEOUT(rowsProcessing(m_list, kRunning), kStartTimeoutMs);
    QElapsedTimer analysing;
    analysing.start();
    // Well into the frame pairs, past the first milestone refresh.
    QTest::qWait(300);
    QVERIFY(rowsProcessing(m_list, kRunning));
    // How far the first pass got, for comparison with the closing time.
    qInfo("after %lld ms of analysis the first row reads '%s'", static_cast<long long>(analysing.elapsed()),
          qPrintable(jobAt(m_list, 0)->text()));
    for (int row = kRunning; row < m_list->count(); ++row)
        QCOMPARE(stateOf(jobAt(m_list, row)), int(Tremora::Waiting));
}

void QuitDuringWorkTest::quitThroughActionAndLoop(int afterMs)
{
    QAction* quit = UiTestSupport::action(*m_window, "actionQuit");
    QTimer::singleShot(afterMs, quit, &QAction::trigger);
    QTimer guard;
    guard.setSingleShot(true);
    connect(&guard, &QTimer::timeout, [] { QCoreApplication::exit(1); });
    guard.start(kLoopTimeoutMs);
    QCOMPARE(QCoreApplication::exec(), 0);
}

void QuitDuringWorkTest::closeWindowWithinBound(bool waitingNeverStart)
{
    // The list deletes its rows only after the window has stopped the pool, so the states
    // read as it starts doing so are the last ones the jobs ever had.
    QList<Tremora*> waiting;
    for (int row = 0; waitingNeverStart && row < m_list->count(); ++row)
        if (stateOf(jobAt(m_list, row)) == Tremora::Waiting)
            waiting.append(jobAt(m_list, row));
    QVector<int> statesAtTeardown;
    connect(m_list->model(), &QAbstractItemModel::modelAboutToBeReset, this, [&] {
        for (Tremora* job : qAsConst(waiting))
            statesAtTeardown.append(stateOf(job));
    });

    const int created = m_ledger->created();
    m_ledger->windowClosing();
    QElapsedTimer closing;
    closing.start();
    m_window.reset();
    const qint64 closeMs = closing.elapsed();
    qInfo("window destroyed in %lld ms", static_cast<long long>(closeMs));
    QVERIFY2(closeMs < kCloseBoundMs, qPrintable(QStringLiteral("%1 ms").arg(closeMs)));
    QCOMPARE(statesAtTeardown, QVector<int>(waiting.size(), Tremora::Waiting));
    QCOMPARE(m_ledger->destroyedCount(), created);
    QCOMPARE(m_ledger->destroyedTwice(), 0);
    QCOMPARE(m_ledger->destroyedWhileListed(), 0);
}

// Read back by a fresh QSettings on the file itself, as the next start would.
void QuitDuringWorkTest::checkSettingsComplete(const QString& file, const QRect& expectedGeometry)
{
    QVERIFY2(QFile::exists(file), qPrintable(file));
    QSettings settings(file, QSettings::IniFormat);
    QCOMPARE(settings.status(), QSettings::NoError);
    QVERIFY(settings.contains(kGeometryKey));
    QVERIFY(settings.contains(kMaximizedKey));
    QCOMPARE(settings.value(kMaximizedKey).toBool(), false);
    if (expectedGeometry.topLeft() == QPoint(-1, -1))
        QCOMPARE(settings.value(kGeometryKey).toRect().size(), expectedGeometry.size());
    else
        QCOMPARE(settings.value(kGeometryKey).toRect(), expectedGeometry);
    QCOMPARE(settings.value(QStringLiteral("last_dir")).toString(), kKeptDir);
    QCOMPARE(settings.value(QStringLiteral("last_files")).toString(), kKeptFilesDir);
}

void QuitDuringWorkTest::destroyingWithTwoRunningAndFiveWaitingReturnsWithinAFramePair()
{
    openBusyWindow();
    if (QTest::currentTestFailed())
        return;
    closeWindowWithinBound(true);
    checkSettingsComplete(m_settingsFile, QRect(QPoint(-1, -1), kWindowSize));
}

void QuitDuringWorkTest::quitActionWithJobsRunningEndsLoopAndWindowClosesPromptly()
{
    openBusyWindow();
    if (QTest::currentTestFailed())
        return;
    QElapsedTimer looping;
    looping.start();
    quitThroughActionAndLoop(100);
    if (QTest::currentTestFailed())
        return;
    qInfo("event loop ended %lld ms after it started", static_cast<long long>(looping.elapsed()));
    // The loop itself stops nothing: the passes still run until the window goes.
    QVERIFY(rowsProcessing(m_list, kRunning));
    closeWindowWithinBound(true);
    checkSettingsComplete(m_settingsFile, QRect(QPoint(-1, -1), kWindowSize));
}

// Quitting ends the dialog's own loop as well: the flow sees a cancelled dialog and stores
// and writes nothing.
void QuitDuringWorkTest::quitWhileSaveDialogIsOpenWritesNothingAndClosesPromptly()
{
    openBusyWindow();
    if (QTest::currentTestFailed())
        return;
    QTemporaryDir out;
    QVERIFY(out.isValid());
    m_list->clearSelection();
    jobAt(m_list, 0)->setSelected(true);
    // The dialog is pointed at `out` with a file name typed in, as a user about to save
    // there would leave it; the quit comes before Save is pressed.
    const QString target = out.filePath(QStringLiteral("map.png"));
    QStringList offered;
    QAction* quit = UiTestSupport::action(*m_window, "actionQuit");
    UiTestSupport::ModalScript script({{"QFileDialog", [quit, &out, &target, &offered](QWidget* widget) {
                                            auto* dialog = qobject_cast<QFileDialog*>(widget);
                                            if (dialog) {
                                                dialog->setDirectory(out.path());
                                                dialog->selectFile(target);
                                                offered = dialog->selectedFiles();
                                            }
                                            QMetaObject::invokeMethod(quit, "trigger", Qt::QueuedConnection);
                                        }}});
    QAction* saveMap = UiTestSupport::action(*m_window, "actionSaveMap");
    QTimer::singleShot(0, saveMap, &QAction::trigger);
    QTimer guard;
    guard.setSingleShot(true);
    connect(&guard, &QTimer::timeout, [] { QCoreApplication::exit(1); });
    guard.start(kLoopTimeoutMs);
    QCOMPARE(QCoreApplication::exec(), 0);

    QCOMPARE(script.seen().size(), 1);
    QCOMPARE(script.seen().first().title, QStringLiteral("Save tremora image as..."));
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(offered, QStringList{target});
    QVERIFY(!QSettings().contains(QStringLiteral("last_export_dir")));
    QCOMPARE(QDir(out.path()).entryList(QDir::Files), QStringList());
    closeWindowWithinBound(true);
    checkSettingsComplete(m_settingsFile, QRect(QPoint(-1, -1), kWindowSize));
}

// The job reads a pipe that holds back all but the first bytes of its video, so it cannot
// reach its next poll of the cancel flag, and the window's destructor waits for it, until
// the pipe is released; that happens only once the geometry is in the settings file.
void QuitDuringWorkTest::geometryIsSavedBeforeTheWindowWaitsForItsRunningJob()
{
    const QString clip = m_clipFolder.filePath(QStringLiteral("noise.mkv"));
    QByteArray noise(160 * 120, '\0');
    for (int i = 0; i < noise.size(); ++i)
        noise[i] = static_cast<char>((i * 7919) % 251);
    QVERIFY(TestSupport::writeRawClip(clip, 160, 120, std::vector<QByteArray>(20, noise)));
    QFile file(clip);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    QVERIFY(bytes.size() > 8192);
    const QString pipe = m_clipFolder.filePath(QStringLiteral("held.pipe"));
    QFile::remove(pipe);
    PipeFeeder feeder(pipe, bytes, 4096);
    QVERIFY(feeder.isOpen());

    m_window = std::make_unique<MainWindow>();
    m_window->show();
    m_window->resize(kWindowSize);
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    m_window->processFile(pipe);
    // The pool runs the job: it has begun to read.
    QTRY_VERIFY_WITH_TIMEOUT(feeder.unread() < 4096, kStartTimeoutMs);
    QVERIFY(!QSettings(m_settingsFile, QSettings::IniFormat).contains(kGeometryKey));

    std::atomic<bool> windowGone{false};
    std::atomic<bool> geometryWhileWaiting{false};
    std::thread watcher([&] {
        QElapsedTimer waited;
        waited.start();
        while (waited.elapsed() < kLoopTimeoutMs) {
            if (QSettings(m_settingsFile, QSettings::IniFormat).contains(kGeometryKey)) {
                geometryWhileWaiting = !windowGone;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        feeder.release();
    });
    m_window.reset();
    windowGone = true;
    watcher.join();
    QVERIFY(geometryWhileWaiting);
    checkSettingsComplete(m_settingsFile, QRect(QPoint(-1, -1), kWindowSize));
}

// Whatever a user left behind (removed jobs still running or queued, cancelled rows, rows
// waiting behind long ones), quitting deletes every job exactly once.
void QuitDuringWorkTest::quitAfterRandomOperationsDeletesEveryJobOnceAndClosesPromptly()
{
    QTemporaryDir out;
    QVERIFY(out.isValid());
    m_window = std::make_unique<MainWindow>();
    m_list = UiTestSupport::mainList(*m_window);
    m_window->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    WindowStress::Session session(*m_window, *m_ledger, m_clips, out.path(), 7);
    session.run(150);
    if (QTest::currentTestFailed())
        return;
    for (int i = 0; i < kRunning + kWaiting; ++i)
        session.addJob(m_longClip);
    QTRY_VERIFY_WITH_TIMEOUT(anyRowProcessing(m_list), kStartTimeoutMs);
    m_window->resize(kWindowSize);
    QTRY_COMPARE(m_window->size(), kWindowSize);

    quitThroughActionAndLoop(50);
    if (QTest::currentTestFailed())
        return;
    closeWindowWithinBound(false);
    checkSettingsComplete(m_settingsFile, QRect(QPoint(-1, -1), kWindowSize));
}

void QuitDuringWorkTest::programEndsOnSigtermMidRunWithCompleteSettings()
{
    QTemporaryDir configHome;
    QVERIFY(configHome.isValid());
    const QString settingsFile = configHome.filePath(QStringLiteral("tremora/tremora.conf"));
    const QRect stored(30, 40, 640, 480);
    {
        QSettings settings(settingsFile, QSettings::IniFormat);
        settings.setValue(kGeometryKey, stored);
        settings.setValue(kMaximizedKey, false);
        settings.setValue(QStringLiteral("last_dir"), kKeptDir);
        settings.setValue(QStringLiteral("last_files"), kKeptFilesDir);
    }
    QStringList clips;
    for (int i = 0; i < kRunning + kWaiting; ++i) {
        clips << m_clipFolder.filePath(QStringLiteral("program-%1.mkv").arg(i));
        QVERIFY(QFile::exists(clips.last()) || QFile::copy(m_longClip, clips.last()));
    }

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome.path());
    QProcess program;
    program.setProcessEnvironment(environment);
    QByteArray errorOutput;
    connect(&program, &QProcess::readyReadStandardError, this,
            [&program, &errorOutput] { errorOutput += program.readAllStandardError(); });
    program.start(QStringLiteral(TREMORA_EXECUTABLE), clips);
    QVERIFY(program.waitForStarted(kStartTimeoutMs));
    QTRY_VERIFY_WITH_TIMEOUT(TestSupport::catchesSignals(program.processId(), {SIGTERM}), kStartTimeoutMs);
    // The video library describes each file it opens: the first two are being analysed.
    for (int i = 0; i < kRunning; ++i)
        QTRY_VERIFY_WITH_TIMEOUT(errorOutput.contains(QFile::encodeName(clips.at(i))), kStartTimeoutMs);
    QTest::qWait(300);
    QCOMPARE(program.state(), QProcess::Running);

    QElapsedTimer ending;
    ending.start();
    QCOMPARE(::kill(static_cast<pid_t>(program.processId()), SIGTERM), 0);
    QVERIFY(program.waitForFinished(kLoopTimeoutMs));
    const qint64 endMs = ending.elapsed();
    errorOutput += program.readAllStandardError();
    qInfo("program ended %lld ms after SIGTERM", static_cast<long long>(endMs));
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QVERIFY2(program.exitCode() == 0, errorOutput.constData());
    QVERIFY2(endMs < kProgramExitBoundMs, qPrintable(QStringLiteral("%1 ms").arg(endMs)));
    // The queue never reached the last clips.
    QVERIFY(!errorOutput.contains(QFile::encodeName(clips.last())));
    checkSettingsComplete(settingsFile, stored);
}

QTEST_MAIN(QuitDuringWorkTest)
#include "QuitDuringWorkTest.moc"
