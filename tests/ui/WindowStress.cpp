#include "WindowStress.h"

#include "ImageFile.h"
#include "MainWindow.h"
#include "TestSupport.h"
#include "Tremora.h"
#include "UiTestSupport.h"

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QListWidget>
#include <QPushButton>
#include <QRegularExpression>
#include <QSet>
#include <QSettings>
#include <QStatusBar>
#include <QTimer>
#include <QtTest>

#include <algorithm>
#include <vector>

// Every check names the seed and the operations that led to it.
#define STRESS_VERIFY(condition, message) \
    QVERIFY2(condition, qPrintable(context() + QStringLiteral(": ") + (message)))

namespace WindowStress {
namespace {

using UiTestSupport::ModalScript;

constexpr int kTinyWidth = 64;
constexpr int kTinyHeight = 48;
constexpr int kRecentOperations = 12;
constexpr int kResizeTimeoutMs = 3000;
constexpr int kSettleTimeoutMs = 90000;
constexpr int kDialogLookIntervalMs = 5000;

struct Weighted {
    Operation operation;
    int weight;
};

// Cheap operations often, the modal flows (each opens real dialogs) now and then.
const Weighted kWeights[] = {
    {Operation::AddFile, 14},
    {Operation::AddSameFileTwice, 5},
    {Operation::SelectRandomRows, 12},
    {Operation::RemoveSelected, 7},
    {Operation::RemoveAll, 2},
    {Operation::CancelByAction, 3},
    {Operation::CancelByButton, 3},
    {Operation::Resize, 5},
    {Operation::Tick, 10},
    {Operation::SaveSnapshot, 5},
    {Operation::SaveMapThroughDialog, 2},
    {Operation::SaveAllThroughDialog, 2},
    {Operation::Wait, 16},
};

QPushButton* button(MainWindow& window, const char* objectName)
{
    return window.findChild<QPushButton*>(QString::fromLatin1(objectName));
}

bool isEnabled(MainWindow& window, const char* objectName)
{
    if (QAction* action = UiTestSupport::action(window, objectName))
        return action->isEnabled();
    return button(window, objectName)->isEnabled();
}

// Triggers an action as a user can only while it is enabled; otherwise calls its slot by
// name, as code may do at any time.
bool triggerOrCall(MainWindow& window, const char* actionName, const char* slotName)
{
    QAction* action = UiTestSupport::action(window, actionName);
    if (action->isEnabled()) {
        action->trigger();
        return true;
    }
    return QMetaObject::invokeMethod(&window, slotName, Qt::DirectConnection);
}

bool clickOrCall(MainWindow& window, const char* buttonName, const char* slotName)
{
    QPushButton* pushButton = button(window, buttonName);
    if (pushButton->isEnabled()) {
        pushButton->click();
        return true;
    }
    return QMetaObject::invokeMethod(&window, slotName, Qt::DirectConnection);
}

int stateOf(const Tremora* job)
{
    return job->m_state.load();
}

bool isFinal(const Tremora* job)
{
    return static_cast<unsigned>(stateOf(job)) >= Tremora::Done;
}

bool isActive(const Tremora* job)
{
    return job->m_cancel.load() == 0 && !isFinal(job);
}

// The texts of the states a row can rest in; a processing row's text carries a percentage
// that moves on its own, so it is never compared.
QString stateText(int state)
{
    switch (state) {
    case Tremora::Waiting:
        return QStringLiteral("waiting...");
    case Tremora::Done:
        return QStringLiteral("done");
    case Tremora::Failed:
        return QStringLiteral("failed");
    case Tremora::Canceled:
        return QStringLiteral("canceled");
    default:
        return QString();
    }
}

QString rowText(const QString& path, int state)
{
    return QStringLiteral("%1 (%2)").arg(QFileInfo(path).fileName(), stateText(state));
}

// Frames alternate between random grey levels, so every pixel sees motion and the maps
// are coloured.
bool writeTinyClip(const QString& path, int frameCount, QRandomGenerator& random)
{
    std::vector<QByteArray> frames;
    for (int i = 0; i < frameCount; ++i)
        frames.push_back(TestSupport::grayFrame(kTinyWidth, kTinyHeight,
                                                static_cast<unsigned char>(random.bounded(256))));
    return TestSupport::writeRawClip(path, kTinyWidth, kTinyHeight, frames, {"-c:v", "ffv1"});
}

// Closes a dialog that stays open across two looks five seconds apart, far longer than any
// scripted answer takes, so that a wrong flow fails with a message instead of hanging.
class DialogWatchdog {
public:
    DialogWatchdog()
    {
        m_timer.setInterval(kDialogLookIntervalMs);
        QObject::connect(&m_timer, &QTimer::timeout, [this] { look(); });
        m_timer.start();
    }

    bool fired() const { return m_fired; }

private:
    void look()
    {
        QWidget* open = QApplication::activeModalWidget();
        if (open && open == m_lastSeen) {
            m_fired = true;
            QMetaObject::invokeMethod(open, "reject", Qt::QueuedConnection);
        }
        m_lastSeen = open;
    }

    QTimer m_timer;
    QPointer<QWidget> m_lastSeen;
    bool m_fired = false;
};

} // namespace

QList<Clip> writeClips(const QString& folder, QSize busySize, int busyFrames)
{
    QRandomGenerator random(0x5eed);
    QList<Clip> clips;
    for (int frames : {5, 12, 30, 60, 120}) {
        const QString path = QStringLiteral("%1/tiny-%2.mkv").arg(folder).arg(frames);
        if (!writeTinyClip(path, frames, random))
            return {};
        clips.append({path, QSize(kTinyWidth, kTinyHeight)});
    }
    if (busyFrames <= 0)
        return clips;
    const QString busy = folder + QStringLiteral("/busy-a.mkv");
    const QString copy = folder + QStringLiteral("/busy-b.mkv");
    if (!UiTestSupport::writeStillClip(busy, busySize.width(), busySize.height(), busyFrames)
        || !QFile::copy(busy, copy))
        return {};
    clips.append({busy, busySize});
    clips.append({copy, busySize});
    return clips;
}

QString missingPath()
{
    return QStringLiteral("/nonexistent/tremora-stress/missing.mkv");
}

int JobLedger::adopt(Tremora* job, const QString& path)
{
    const int id = m_entries.size();
    Entry entry;
    entry.path = path;
    entry.job = job;
    entry.address = job;
    m_entries.append(entry);
    m_idOfLive.insert(job, id);
    connect(job, &QObject::destroyed, this, [this, id] { onDestroyed(id); });
    return id;
}

int JobLedger::destroyedCount() const
{
    int count = 0;
    for (const Entry& entry : m_entries)
        count += entry.destroyed ? 1 : 0;
    return count;
}

QList<int> JobLedger::aliveRemoved() const
{
    QList<int> ids;
    for (int id = 0; id < m_entries.size(); ++id)
        if (m_entries.at(id).removed && !m_entries.at(id).destroyed)
            ids.append(id);
    return ids;
}

// Emitted from ~QObject, after the job's own parts are gone: only the ledger is touched.
void JobLedger::onDestroyed(int id)
{
    Entry& entry = m_entries[id];
    if (entry.destroyed)
        ++m_destroyedTwice;
    if (!entry.removed && !m_windowClosing)
        ++m_destroyedWhileListed;
    entry.destroyed = true;
    m_idOfLive.remove(entry.address);
}

QString nameOf(Operation operation)
{
    switch (operation) {
    case Operation::AddFile:
        return QStringLiteral("add file");
    case Operation::AddSameFileTwice:
        return QStringLiteral("add same file twice");
    case Operation::SelectRandomRows:
        return QStringLiteral("select rows");
    case Operation::RemoveSelected:
        return QStringLiteral("remove selected");
    case Operation::RemoveAll:
        return QStringLiteral("remove all");
    case Operation::CancelByAction:
        return QStringLiteral("cancel (action)");
    case Operation::CancelByButton:
        return QStringLiteral("cancel (button)");
    case Operation::Resize:
        return QStringLiteral("resize");
    case Operation::Tick:
        return QStringLiteral("tick");
    case Operation::SaveSnapshot:
        return QStringLiteral("save snapshot");
    case Operation::SaveMapThroughDialog:
        return QStringLiteral("save map (dialog)");
    case Operation::SaveAllThroughDialog:
        return QStringLiteral("save all maps (dialog)");
    case Operation::Wait:
        return QStringLiteral("wait");
    }
    return QString();
}

Session::Session(MainWindow& window, JobLedger& ledger, const QList<Clip>& clips, const QString& outFolder,
                 quint32 seed)
    : m_window(window)
    , m_list(UiTestSupport::mainList(window))
    , m_ledger(ledger)
    , m_clips(clips)
    , m_outFolder(outFolder)
    , m_seed(seed)
    , m_random(seed)
    , m_timingRandom(seed ^ 0x9e3779b9u)
{
}

QString Session::context() const
{
    return QStringLiteral("seed %1, operation %2, last operations: %3")
        .arg(m_seed)
        .arg(m_operationNumber)
        .arg(m_recent.join(QStringLiteral(", ")));
}

void Session::run(int count)
{
    for (int i = 0; i < count; ++i) {
        ++m_operationNumber;
        const Operation operation = pick();
        m_recent.append(nameOf(operation));
        if (m_recent.size() > kRecentOperations)
            m_recent.removeFirst();
        perform(operation);
        if (QTest::currentTestFailed())
            return;
        QTest::qWait(m_random.bounded(4));
        checkAfterOperation();
        if (QTest::currentTestFailed())
            return;
    }
}

Operation Session::pick()
{
    int total = 0;
    for (const Weighted& weighted : kWeights)
        total += weighted.weight;
    int value = m_random.bounded(total);
    for (const Weighted& weighted : kWeights) {
        if (value < weighted.weight)
            return weighted.operation;
        value -= weighted.weight;
    }
    return Operation::Wait;
}

void Session::perform(Operation operation)
{
    ++m_performed[nameOf(operation)];
    switch (operation) {
    case Operation::AddFile:
        addJob(pickPath());
        break;
    case Operation::AddSameFileTwice: {
        const QString path = pickPath();
        addJob(path);
        if (!QTest::currentTestFailed())
            addJob(path);
        break;
    }
    case Operation::SelectRandomRows:
        selectRandomRows();
        break;
    case Operation::RemoveSelected:
        removeRows(false);
        break;
    case Operation::RemoveAll:
        removeRows(true);
        break;
    case Operation::CancelByAction:
        cancel(false);
        break;
    case Operation::CancelByButton:
        cancel(true);
        break;
    case Operation::Resize:
        resize();
        break;
    case Operation::Tick:
        tick();
        break;
    case Operation::SaveSnapshot:
        saveSnapshot();
        break;
    case Operation::SaveMapThroughDialog:
        if (Tremora* job = pickRow(true))
            saveMapThroughDialog(job, false);
        break;
    case Operation::SaveAllThroughDialog:
        saveAllThroughDialog();
        break;
    case Operation::Wait:
        QTest::qWait(5 + m_random.bounded(35));
        break;
    }
}

QString Session::pickPath()
{
    if (m_random.bounded(10) == 0)
        return missingPath();
    return m_clips.at(m_random.bounded(m_clips.size())).path;
}

// The list's content is the same for a given seed; which rows are running at a moment is
// not, so a choice among running rows draws from a generator of its own.
Tremora* Session::pickRow(bool preferRunning)
{
    const int count = m_list->count();
    if (count == 0)
        return nullptr;
    const int row = m_random.bounded(count);
    if (!preferRunning)
        return UiTestSupport::jobAt(m_list, row);
    QList<Tremora*> running;
    for (int i = 0; i < count; ++i)
        if (stateOf(UiTestSupport::jobAt(m_list, i)) == Tremora::Processing)
            running.append(UiTestSupport::jobAt(m_list, i));
    if (running.isEmpty())
        return UiTestSupport::jobAt(m_list, row);
    return running.at(m_timingRandom.bounded(running.size()));
}

QSize Session::clipSize(const QString& path) const
{
    for (const Clip& clip : m_clips)
        if (clip.path == path)
            return clip.size;
    return QSize();
}

QString Session::freshOutPath(const QString& stem, const QString& extension)
{
    return QStringLiteral("%1/%2-%3.%4").arg(m_outFolder, stem).arg(++m_outFiles).arg(extension);
}

void Session::addJob(const QString& path)
{
    const int countBefore = m_list->count();
    m_window.processFile(path);
    STRESS_VERIFY(m_list->count() == countBefore + 1, QStringLiteral("one row per added file"));
    Tremora* job = UiTestSupport::jobAt(m_list, countBefore);
    STRESS_VERIFY(m_ledger.idOf(job) == -1, QStringLiteral("a new row is a new job"));
    m_rows.append(m_ledger.adopt(job, path));
    STRESS_VERIFY(job->isSelected(), QStringLiteral("an added row is selected"));
    // The pass posts its row changes to this thread, which has not run its loop since.
    STRESS_VERIFY(job->text() == rowText(path, Tremora::Waiting), job->text());
    STRESS_VERIFY(isEnabled(m_window, "actionRemoveAll") && isEnabled(m_window, "actionSaveMap"),
                  QStringLiteral("controls follow an added row"));
}

void Session::selectRandomRows()
{
    switch (m_random.bounded(8)) {
    case 0:
        m_list->selectAll();
        return;
    case 1:
        m_list->clearSelection();
        return;
    default:
        break;
    }
    m_list->clearSelection();
    const int percent = 1 + m_random.bounded(60);
    for (int row = 0; row < m_list->count(); ++row)
        if (m_random.bounded(100) < percent)
            m_list->item(row)->setSelected(true);
}

void Session::removeRows(bool all)
{
    QVector<int> remaining;
    QVector<int> removed;
    for (int row = 0; row < m_list->count(); ++row)
        (all || m_list->item(row)->isSelected() ? removed : remaining).append(m_rows.at(row));

    const bool called = all ? triggerOrCall(m_window, "actionRemoveAll", "on_actionRemoveAll_triggered")
                            : triggerOrCall(m_window, "actionRemoveSelected", "on_actionRemoveSelected_triggered");
    STRESS_VERIFY(called, QStringLiteral("remove slot reached"));

    m_rows = remaining;
    for (int id : qAsConst(removed)) {
        m_ledger.markRemoved(id);
        const JobLedger::Entry& entry = m_ledger.entry(id);
        // Deleting here could pull the job from under a running pass; only the tick may.
        STRESS_VERIFY(!entry.destroyed, QStringLiteral("removed job %1 kept until a tick").arg(id));
        STRESS_VERIFY(entry.job->m_cancel.load() != 0, QStringLiteral("removed job %1 flagged").arg(id));
    }
}

void Session::cancel(bool byButton)
{
    const bool called = byButton ? clickOrCall(m_window, "pushButtonCancel", "on_pushButtonCancel_clicked")
                                 : triggerOrCall(m_window, "actionCancelProcessing",
                                                 "on_actionCancelProcessing_triggered");
    STRESS_VERIFY(called, QStringLiteral("cancel slot reached"));
    for (int row = 0; row < m_list->count(); ++row)
        STRESS_VERIFY(UiTestSupport::jobAt(m_list, row)->m_cancel.load() != 0,
                      QStringLiteral("row %1 flagged by cancel").arg(row));
    STRESS_VERIFY(!isEnabled(m_window, "actionCancelProcessing") && !isEnabled(m_window, "pushButtonCancel"),
                  QStringLiteral("cancel disables both cancel controls"));
}

void Session::resize()
{
    const QSize wanted(320 + m_random.bounded(800), 240 + m_random.bounded(600));
    m_window.resize(wanted);
    QTRY_VERIFY2_WITH_TIMEOUT(m_list->iconSize() == m_window.size(),
                              qPrintable(context() + QStringLiteral(": icon size follows the window")),
                              kResizeTimeoutMs);
}

// A removed job that had ended before the tick must be gone after it.
void Session::tick()
{
    QList<int> endedBefore;
    for (int id : m_ledger.aliveRemoved())
        if (isFinal(m_ledger.entry(id).job))
            endedBefore.append(id);
    m_window.updatePeriodic();
    for (int id : qAsConst(endedBefore))
        STRESS_VERIFY(m_ledger.entry(id).destroyed, QStringLiteral("ended removed job %1 reaped").arg(id));
    // A rate above 0 but below 1 (a slow machine, a pass just starting) truncates to 0.
    static const QRegularExpression rate(QStringLiteral("^Frames per second: (0|[1-9][0-9]*)$"));
    const QString message = m_window.statusBar()->currentMessage();
    STRESS_VERIFY(message.isEmpty() || rate.match(message).hasMatch(), message);
}

// The way a second thread of the program could save: a copy of the map as it stands.
void Session::saveSnapshot()
{
    Tremora* job = pickRow(true);
    if (!job)
        return;
    const QString path = m_ledger.entry(m_ledger.idOf(job)).path;
    const QImage map = job->getResult();
    const QString target = freshOutPath(QStringLiteral("snapshot"), QStringLiteral("png"));
    const bool saved = Utils::saveImage(map, target);
    if (map.isNull()) {
        STRESS_VERIFY(!saved && !QFile::exists(target), QStringLiteral("no map, no file"));
        return;
    }
    STRESS_VERIFY(saved, target);
    STRESS_VERIFY(map.size() == clipSize(path), QStringLiteral("map has the video's size"));
    STRESS_VERIFY(QImage(target).size() == map.size(), target);
    QFile::remove(target);
}

void Session::saveMapThroughDialog(Tremora* job, bool throughSaveAll)
{
    const QString path = m_ledger.entry(m_ledger.idOf(job)).path;
    const int stateBefore = stateOf(job);
    static const QStringList extensions{QStringLiteral("png"), QStringLiteral("bmp"), QStringLiteral("jpg")};
    const QString extension = extensions.at(m_random.bounded(extensions.size()));
    const QString target = freshOutPath(QStringLiteral("map"), extension);
    if (!throughSaveAll) {
        m_list->clearSelection();
        job->setSelected(true);
    }

    ModalScript script({UiTestSupport::acceptFileDialog(target), UiTestSupport::clickButton(QMessageBox::Ok)});
    const DialogWatchdog watchdog;
    UiTestSupport::action(m_window, throughSaveAll ? "actionSaveAllMaps" : "actionSaveMap")->trigger();
    STRESS_VERIFY(!watchdog.fired(), QStringLiteral("a dialog was left unanswered"));

    const QVector<UiTestSupport::SeenDialog>& seen = script.seen();
    STRESS_VERIFY(script.unexpected() == 0 && (seen.size() == 1 || seen.size() == 2),
                  QStringLiteral("%1 dialogs, %2 unexpected").arg(seen.size()).arg(script.unexpected()));
    STRESS_VERIFY(seen.first().title == QStringLiteral("Save tremora image as..."), seen.first().title);
    STRESS_VERIFY(QSettings().value(QStringLiteral("last_export_ext")).toString() == extension,
                  QStringLiteral("extension remembered"));
    if (throughSaveAll)
        STRESS_VERIFY(job->isSelected(), QStringLiteral("the single entry stays selected"));
    if (seen.size() == 2) {
        // Only a job without a map yet may fail to save.
        STRESS_VERIFY(seen.at(1).title == QStringLiteral("Error")
                          && seen.at(1).text == QStringLiteral("Can't save image file '%1'").arg(target),
                      seen.at(1).text);
        STRESS_VERIFY(stateBefore != Tremora::Done, QStringLiteral("a finished job's map saves"));
        STRESS_VERIFY(!QFile::exists(target), target);
        return;
    }
    STRESS_VERIFY(path != missingPath(), QStringLiteral("a missing video has no map"));
    const QImage written(target);
    STRESS_VERIFY(!written.isNull() && written.size() == clipSize(path), target);
}

void Session::saveAllThroughDialog()
{
    // Now and then the user first removes all rows but one, which the flow treats apart.
    if (m_list->count() > 1 && m_random.bounded(3) == 0) {
        const int kept = m_random.bounded(m_list->count());
        m_list->selectAll();
        m_list->item(kept)->setSelected(false);
        removeRows(false);
        if (QTest::currentTestFailed())
            return;
    }
    if (m_list->count() == 1) {
        ++m_performed[QStringLiteral("save all maps (dialog, one row)")];
        saveMapThroughDialog(UiTestSupport::jobAt(m_list, 0), true);
        return;
    }
    const QString extension = QSettings().value(QStringLiteral("last_export_ext"), QStringLiteral("jpg")).toString();
    QHash<QString, QSize> sizeOfFile;
    QSet<QString> mustExist;
    int finishedSharingName = 0;
    for (int row = 0; row < m_list->count(); ++row) {
        Tremora* job = UiTestSupport::jobAt(m_list, row);
        const QString path = m_ledger.entry(m_ledger.idOf(job)).path;
        const QString file = QFileInfo(path).baseName() + QLatin1Char('.') + extension;
        sizeOfFile.insert(file, clipSize(path));
        if (stateOf(job) == Tremora::Done) {
            finishedSharingName += mustExist.contains(file) ? 1 : 0;
            mustExist.insert(file);
        }
    }
    const QString folder = freshOutPath(QStringLiteral("all"), QStringLiteral("d"));
    QDir().mkpath(folder);

    ModalScript script({UiTestSupport::acceptFileDialog(folder), UiTestSupport::clickButton(QMessageBox::YesToAll)});
    const DialogWatchdog watchdog;
    const bool called = m_random.bounded(2)
        ? clickOrCall(m_window, "pushButtonSaveAllMap", "on_pushButtonSaveAllMap_clicked")
        : triggerOrCall(m_window, "actionSaveAllMaps", "on_actionSaveAllMaps_triggered");
    STRESS_VERIFY(called, QStringLiteral("save-all slot reached"));
    STRESS_VERIFY(!watchdog.fired(), QStringLiteral("a dialog was left unanswered"));

    const QVector<UiTestSupport::SeenDialog>& seen = script.seen();
    STRESS_VERIFY(script.unexpected() == 0 && !seen.isEmpty() && seen.size() <= 2,
                  QStringLiteral("%1 dialogs, %2 unexpected").arg(seen.size()).arg(script.unexpected()));
    STRESS_VERIFY(seen.first().title == QStringLiteral("Save All Maps..."), seen.first().title);
    // Yes to All at the first prompt answers every later one.
    if (seen.size() == 2)
        STRESS_VERIFY(seen.at(1).title == QStringLiteral("Overwrite file?"), seen.at(1).title);
    if (finishedSharingName > 0)
        STRESS_VERIFY(seen.size() == 2, QStringLiteral("two finished maps of one name meet the prompt"));
    STRESS_VERIFY(QSettings().value(QStringLiteral("save_all_maps_dir")).toString() == folder,
                  QStringLiteral("folder remembered"));

    const QStringList written = QDir(folder).entryList(QDir::Files);
    for (const QString& file : written) {
        STRESS_VERIFY(sizeOfFile.contains(file), QStringLiteral("unexpected file %1").arg(file));
        STRESS_VERIFY(QImage(folder + QLatin1Char('/') + file).size() == sizeOfFile.value(file), file);
    }
    for (const QString& file : qAsConst(mustExist))
        STRESS_VERIFY(written.contains(file), QStringLiteral("finished map %1 written").arg(file));
}

void Session::checkRowsMatchModel()
{
    STRESS_VERIFY(m_list->count() == m_rows.size(),
                  QStringLiteral("%1 rows, %2 expected").arg(m_list->count()).arg(m_rows.size()));
    for (int row = 0; row < m_rows.size(); ++row)
        STRESS_VERIFY(m_ledger.idOf(UiTestSupport::jobAt(m_list, row)) == m_rows.at(row),
                      QStringLiteral("row %1 holds job %2").arg(row).arg(m_rows.at(row)));
}

bool Session::anyRowActive() const
{
    for (int row = 0; row < m_list->count(); ++row)
        if (isActive(UiTestSupport::jobAt(m_list, row)))
            return true;
    return false;
}

// Selection and emptiness are this thread's own, so their controls must match exactly. A
// job may end at any moment and no one re-evaluates then, so Cancel may stay enabled after
// the last active job; it must never be disabled while a job is active.
void Session::checkControlsConsistent()
{
    const bool anySelected = !m_list->selectedItems().isEmpty();
    const bool notEmpty = m_list->count() > 0;
    const bool anyActive = anyRowActive();
    const bool cancelEnabled = isEnabled(m_window, "actionCancelProcessing");
    const QString state = QStringLiteral("selected %1, not empty %2, active %3").arg(anySelected).arg(notEmpty).arg(anyActive);
    for (const char* name : {"actionRemoveSelected", "actionSaveMap", "actionOpenVideoFile"})
        STRESS_VERIFY(isEnabled(m_window, name) == anySelected, QLatin1String(name) + QStringLiteral(" with ") + state);
    for (const char* name : {"actionRemoveAll", "actionSaveAllMaps", "pushButtonSaveAllMap"})
        STRESS_VERIFY(isEnabled(m_window, name) == notEmpty, QLatin1String(name) + QStringLiteral(" with ") + state);
    STRESS_VERIFY(isEnabled(m_window, "pushButtonCancel") == cancelEnabled, QStringLiteral("cancel controls agree"));
    STRESS_VERIFY(cancelEnabled || !anyActive, QStringLiteral("cancel enabled with ") + state);
}

// A row never becomes active again, so a job that ends during the re-evaluation leaves Cancel
// as it was before or after; it is exact whenever no job ends meanwhile.
void Session::checkControlsExactly()
{
    const bool activeBefore = anyRowActive();
    m_window.update();
    const bool activeAfter = anyRowActive();
    checkControlsConsistent();
    const bool cancelEnabled = isEnabled(m_window, "actionCancelProcessing");
    STRESS_VERIFY((!activeAfter || cancelEnabled) && (activeBefore || !cancelEnabled),
                  QStringLiteral("cancel follows the active rows after re-evaluation"));
}

void Session::checkAfterOperation()
{
    checkRowsMatchModel();
    checkControlsConsistent();
    STRESS_VERIFY(m_ledger.destroyedWhileListed() == 0 && m_ledger.destroyedTwice() == 0,
                  QStringLiteral("jobs are deleted once, and only after removal"));
    int processing = 0;
    for (int row = 0; row < m_list->count(); ++row)
        processing += stateOf(UiTestSupport::jobAt(m_list, row)) == Tremora::Processing ? 1 : 0;
    m_mostRunning = std::max(m_mostRunning, processing);
}

void Session::settle()
{
    cancel(false);
    if (QTest::currentTestFailed())
        return;
    QElapsedTimer waiting;
    waiting.start();
    for (;;) {
        const bool rowsEnded = UiTestSupport::allFinished(m_list);
        m_window.updatePeriodic();
        ++m_ticksToReap;
        if (rowsEnded && m_ledger.aliveRemoved().isEmpty())
            break;
        STRESS_VERIFY(waiting.elapsed() < kSettleTimeoutMs,
                      QStringLiteral("%1 removed jobs never reaped").arg(m_ledger.aliveRemoved().size()));
        QTest::qWait(20);
    }
    // Row changes posted by the passes before their final state arrive now.
    QTest::qWait(50);

    checkRowsMatchModel();
    for (int row = 0; row < m_list->count(); ++row) {
        Tremora* job = UiTestSupport::jobAt(m_list, row);
        const QString path = m_ledger.entry(m_rows.at(row)).path;
        const int state = stateOf(job);
        STRESS_VERIFY(job->text() == rowText(path, state), job->text());
        STRESS_VERIFY(path == missingPath() ? state != Tremora::Done : state != Tremora::Failed,
                      QStringLiteral("%1 ended %2").arg(path).arg(state));
        if (state == Tremora::Done)
            STRESS_VERIFY(job->getResult().size() == clipSize(path), path);
    }
    checkControlsExactly();
}

} // namespace WindowStress
