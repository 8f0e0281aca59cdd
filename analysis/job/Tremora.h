#pragma once

#include "AtomicCounter.h"

#include <QFileInfo>
#include <QImage>
#include <QListWidgetItem>
#include <QMutex>
#include <QObject>
#include <QRunnable>
#include <QSize>
#include <QString>

#include <opencv2/core/mat.hpp>

#include <atomic>

// The analysis job for one video file: the unit of work run on the window's thread pool,
// the list row that shows the file's name, state, progress and map thumbnail, and the holder
// of the finished map. Created, listed and deleted on the GUI thread; `run` runs on a pool
// thread. The creator switches auto-delete off: the list (or the window) owns the job.
class Tremora : public QObject, public QRunnable, public QListWidgetItem {
    Q_OBJECT

public:
    enum State { Waiting = 0, Processing = 1, Done = 2, Failed = 3, Canceled = 4 };

    // GUI thread. The row shows "<file name> (waiting...)" with a black thumbnail of
    // `iconSize` at once. `updateInterval` is the number of frame pairs between two
    // refreshes of the row while the video is analysed.
    Tremora(const QString& path, QSize iconSize, int updateInterval);
    // GUI thread, never while `run` is executing (wait for a final m_state first).
    ~Tremora() override;

    // Renders the map and the thumbnail for `state` on the calling thread and records the
    // state. On the GUI thread the row changes at once; from any other thread its changes
    // are queued to the GUI thread, in call order, and dropped if the job is deleted first.
    // Called by the constructor and by `run` only.
    void update(Tremora::State state);

    // A copy of the map; null before the first map was rendered. Any thread.
    QImage getResult();

    // The analysis pass over the whole video. Pool thread; touches nothing of the job after
    // its final state is recorded.
    void run() override;

    // Frame pairs analysed by all jobs together; read by the window's tick.
    static AtomicCounter globalCounter;

    // Decoder threads for a job that starts while `runningJobs` jobs (itself included) run
    // on `cores` cores: alone, it decodes on every core, which the pool's other thread leaves
    // idle; beside another, on one thread, as each pass keeps a core of its own
    // (DecoderThreads::Sharing::OneEach). Any thread.
    static int decoderThreadsFor(int runningJobs, int cores);

    QSize m_iconSize;
    QString m_path;
    QFileInfo m_fileInfo;           // read on the GUI thread only (its caches are lazy)
    qint64 m_position;              // pool thread while running
    cv::Mat m_motionCount;          // pool thread while running
    cv::Mat m_background;           // pool thread while running
    int m_updateInterval;
    bool m_blur;
    std::atomic<int> m_state;       // written by the job, read by the window
    std::atomic<int> m_cancel;      // written non-zero by the window to stop the job
    QImage m_result;                // guarded by m_mutex
    QMutex m_mutex;

private:
    QString stateText(int state) const;
    void applyRow(const QImage& thumbnail, const QString& stateText);
};
