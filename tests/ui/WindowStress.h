#pragma once

#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QRandomGenerator>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QVector>

class MainWindow;
class QListWidget;
class Tremora;

// A seeded random user working the window: adding files, selecting, removing, cancelling,
// resizing, ticking and saving maps, with the checks that must hold after every step. Used
// by the window's stress and quit tests, on the test's (GUI) thread only. Failures are
// reported through Qt Test with the seed and the last operations in the message.
namespace WindowStress {

// Clips of known picture size, written once per test executable.
struct Clip {
    QString path;
    QSize size;
};

// Tiny ffv1 clips with motion of 5 to 120 frames, plus longer still clips that keep two
// jobs busy; `busyFrames` 0 leaves the busy clips out.
QList<Clip> writeClips(const QString& folder, QSize busySize, int busyFrames);

// A path that no job can open.
QString missingPath();

// Follows every job of one window through its QObject::destroyed signal, so deletions are
// seen without reaching into the window: which jobs were removed, which are gone, and any
// job destroyed while still a row or destroyed twice.
class JobLedger : public QObject {
public:
    struct Entry {
        QString path;
        QPointer<Tremora> job;
        Tremora* address = nullptr; // key in m_idOfLive, only while alive
        bool removed = false;
        bool destroyed = false;
    };

    int adopt(Tremora* job, const QString& path);
    int idOf(const Tremora* job) const { return m_idOfLive.value(job, -1); }
    const Entry& entry(int id) const { return m_entries.at(id); }
    void markRemoved(int id) { m_entries[id].removed = true; }
    // From now on rows may be destroyed: the window itself is going.
    void windowClosing() { m_windowClosing = true; }

    int created() const { return m_entries.size(); }
    int destroyedCount() const;
    QList<int> aliveRemoved() const;
    int destroyedWhileListed() const { return m_destroyedWhileListed; }
    int destroyedTwice() const { return m_destroyedTwice; }

private:
    void onDestroyed(int id);

    QVector<Entry> m_entries;
    QHash<const Tremora*, int> m_idOfLive;
    bool m_windowClosing = false;
    int m_destroyedWhileListed = 0;
    int m_destroyedTwice = 0;
};

enum class Operation {
    AddFile,
    AddSameFileTwice,
    SelectRandomRows,
    RemoveSelected,
    RemoveAll,
    CancelByAction,
    CancelByButton,
    Resize,
    Tick,
    SaveSnapshot,
    SaveMapThroughDialog,
    SaveAllThroughDialog,
    Wait,
};

QString nameOf(Operation operation);

class Session {
public:
    // `outFolder` receives the saved maps; `clips` are added at random, with the missing
    // path now and then.
    Session(MainWindow& window, JobLedger& ledger, const QList<Clip>& clips, const QString& outFolder,
            quint32 seed);

    // Runs `count` random operations; stops at the first failed check.
    void run(int count);
    void perform(Operation operation);

    // Cancels everything, waits for every pass to end and ticks until every removed job is
    // deleted; then checks rows, texts and controls against the rules.
    void settle();

    // Re-evaluates the controls and compares all eight with what the list says.
    void checkControlsExactly();
    void checkRowsMatchModel();

    // Seed, operation number and the last operations, for failure messages.
    QString context() const;
    const QMap<QString, int>& performed() const { return m_performed; }
    int ticksToReapAtSettle() const { return m_ticksToReap; }
    // The most rows seen processing at once after an operation.
    int mostRunning() const { return m_mostRunning; }

    // Adds one job for `path` and follows it.
    void addJob(const QString& path);

private:
    Operation pick();
    QString pickPath();
    Tremora* pickRow(bool preferRunning);
    QSize clipSize(const QString& path) const;
    QString freshOutPath(const QString& stem, const QString& extension);

    void selectRandomRows();
    void removeRows(bool all);
    void cancel(bool byButton);
    void resize();
    void tick();
    void saveSnapshot();
    void saveMapThroughDialog(Tremora* job, bool throughSaveAll);
    void saveAllThroughDialog();
    bool anyRowActive() const;
    void checkControlsConsistent();
    void checkAfterOperation();

    MainWindow& m_window;
    QListWidget* m_list;
    JobLedger& m_ledger;
    QList<Clip> m_clips;
    QString m_outFolder;
    quint32 m_seed;
    QRandomGenerator m_random;
    QRandomGenerator m_timingRandom;
    QVector<int> m_rows; // ledger ids of the rows, in list order, as the operations left them
    QStringList m_recent;
    int m_operationNumber = 0;
    int m_outFiles = 0;
    int m_ticksToReap = 0;
    int m_mostRunning = 0;
    QMap<QString, int> m_performed;
};

} // namespace WindowStress
