#include "Tremora.h"

#include "DecoderThreads.h"
#include "MotionMap.h"
#include "MotionPass.h"
#include "Utils.h"

#include <QIcon>
#include <QMetaObject>
#include <QMutexLocker>
#include <QPixmap>
#include <QThread>

AtomicCounter Tremora::globalCounter;

namespace {

// Jobs whose pass runs now; a job that starts alone decodes on more threads.
std::atomic<int> runningJobs{0};

class RunningJob {
public:
    RunningJob() { m_count = runningJobs.fetch_add(1) + 1; }
    ~RunningJob() { runningJobs.fetch_sub(1); }
    int count() const { return m_count; }

private:
    int m_count;
};

// The hooks through which a pass reports to its job.
class JobHooks final : public MotionPassHooks {
public:
    explicit JobHooks(Tremora& job)
        : m_job(job)
    {
    }

    bool cancelRequested() override { return m_job.m_cancel.load(std::memory_order_relaxed) != 0; }
    void started() override { m_job.update(Tremora::Processing); }
    void positionChanged(std::int64_t bytes) override { m_job.m_position = bytes; }
    void pairAnalysed() override { Tremora::globalCounter.increment(); }
    void refresh(Refresh) override { m_job.update(static_cast<Tremora::State>(m_job.m_state.load(std::memory_order_relaxed))); }

private:
    Tremora& m_job;
};

QIcon iconOf(const QPixmap& pixmap)
{
    // The same picture for the selected mode, so selection does not tint the thumbnail.
    QIcon icon;
    icon.addPixmap(pixmap, QIcon::Normal, QIcon::Off);
    icon.addPixmap(pixmap, QIcon::Selected, QIcon::Off);
    return icon;
}

// Every job without a map shows the same black thumbnail; sharing it keeps a long queue of
// waiting jobs from holding one full-size picture each. GUI thread only.
QIcon blackIcon(QSize size)
{
    static QSize cachedSize;
    static QIcon cachedIcon;
    if (cachedIcon.isNull() || cachedSize != size) {
        QImage black(size, QImage::Format_RGB888);
        black.fill(0);
        cachedIcon = iconOf(QPixmap::fromImage(black));
        cachedSize = size;
    }
    return cachedIcon;
}

} // namespace

Tremora::Tremora(const QString& path, QSize iconSize, int updateInterval)
    : m_iconSize(iconSize)
    , m_path(path)
    , m_fileInfo(path)
    , m_position(0)
    , m_updateInterval(updateInterval)
    , m_blur(true)
    , m_state(Waiting)
    , m_cancel(0)
{
    update(Waiting);
}

Tremora::~Tremora() = default;

void Tremora::update(Tremora::State state)
{
    const QImage map = MotionMap::render(m_motionCount, m_background);
    QImage thumbnail;
    if (!map.isNull()) {
        thumbnail = QImage(m_iconSize, QImage::Format_RGB888);
        thumbnail.fill(0);
        Utils::drawImageCentered(map, thumbnail, 0);
        QMutexLocker lock(&m_mutex);
        m_result = map;
    }
    const QString text = stateText(state);
    if (QThread::currentThread() == thread())
        applyRow(thumbnail, text);
    else
        QMetaObject::invokeMethod(this, [this, thumbnail, text] { applyRow(thumbnail, text); }, Qt::QueuedConnection);
    // Release: the window deletes a job once it reads a final state, and by then the row
    // change above must already be posted, or it would be posted to a deleted job.
    m_state.store(state, std::memory_order_release);
}

QImage Tremora::getResult()
{
    QMutexLocker lock(&m_mutex);
    return m_result;
}

int Tremora::decoderThreadsFor(int runningJobs, int cores)
{
    return DecoderThreads::forPass(runningJobs, cores, DecoderThreads::Sharing::OneEach);
}

void Tremora::run()
{
    JobHooks hooks(*this);
    const RunningJob running;
    MotionPassSettings settings;
    settings.blur = m_blur;
    settings.updateInterval = m_updateInterval;
    settings.decoderThreads = decoderThreadsFor(running.count(), QThread::idealThreadCount());
    switch (MotionPass::run(m_path.toUtf8(), settings, m_motionCount, m_background, hooks)) {
    case MotionPassOutcome::OpenFailed:
    case MotionPassOutcome::TimeOutOfRange: // not asked for: the window neither slices nor records times
        update(Failed);
        break;
    case MotionPassOutcome::Canceled:
        update(Canceled);
        break;
    case MotionPassOutcome::Finished:
        update(Done);
        break;
    }
}

QString Tremora::stateText(int state) const
{
    switch (state) {
    case Waiting:
        return tr("waiting...");
    case Processing: {
        // A fresh QFileInfo: this runs on the pool thread, and m_fileInfo fills its caches
        // lazily, which the GUI thread may be doing at the same moment.
        const qint64 size = QFileInfo(m_path).size();
        const qint64 percent = size > 0 ? m_position * 100 / size : 0;
        return tr("processing... %1%").arg(percent);
    }
    case Done:
        return tr("done");
    case Failed:
        return tr("failed");
    case Canceled:
        return tr("canceled");
    default:
        return tr("unknown");
    }
}

// GUI thread.
void Tremora::applyRow(const QImage& thumbnail, const QString& stateText)
{
    setData(Qt::DecorationRole, thumbnail.isNull() ? blackIcon(m_iconSize) : iconOf(QPixmap::fromImage(thumbnail)));
    setData(Qt::DisplayRole, tr("%1 (%2)").arg(m_fileInfo.fileName(), stateText));
    setData(Qt::ToolTipRole, m_fileInfo.absoluteFilePath());
}
