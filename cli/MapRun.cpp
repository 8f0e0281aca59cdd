#include "MapRun.h"

#include "AtomicCounter.h"
#include "ImageFile.h"
#include "MotionMap.h"
#include "MotionPass.h"
#include "ProgressOutput.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <QThreadPool>

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// How often the driving thread looks at the passes.
constexpr int kPollMs = 100;
// The frames-per-second figure is measured over intervals of this length.
constexpr qint64 kRateIntervalMs = 1000;

enum class FileState { Waiting, Running, Done, Failed, Canceled };

bool isFinal(FileState state)
{
    return state == FileState::Done || state == FileState::Failed || state == FileState::Canceled;
}

// One input on its way through the run. The pass's thread writes `state`, `position` and,
// before a final state, `error`; the driving thread reads them, `error` only after it has
// seen the final state.
struct FileJob {
    PlannedInput input;
    qint64 size = 0;
    std::atomic<FileState> state{FileState::Waiting};
    std::atomic<qint64> position{0};
    QString error;
    FileState reported = FileState::Waiting; // driving thread only

    void finish(FileState finalState, const QString& message = {})
    {
        error = message;
        state.store(finalState, std::memory_order_release);
    }
};

using FileJobs = std::vector<std::unique_ptr<FileJob>>;

class FileHooks final : public MotionPassHooks {
public:
    FileHooks(FileJob& job, const std::atomic<int>& cancel, AtomicCounter& pairs)
        : m_job(job)
        , m_cancel(cancel)
        , m_pairs(pairs)
    {
    }

    bool cancelRequested() override { return m_cancel.load(std::memory_order_relaxed) != 0; }
    void started() override { m_job.state.store(FileState::Running, std::memory_order_release); }
    void positionChanged(std::int64_t bytes) override { m_job.position.store(bytes, std::memory_order_relaxed); }
    void pairAnalysed() override { m_pairs.increment(); }
    // Only the final map is written, so intermediate ones are never rendered.
    void refresh(Refresh) override {}

private:
    FileJob& m_job;
    const std::atomic<int>& m_cancel;
    AtomicCounter& m_pairs;
};

// A copy of `matrix`, which must be of `type`, as an image whose rows hold the same bytes.
QImage imageOf(const cv::Mat& matrix, int type, QImage::Format format)
{
    if (matrix.empty() || matrix.type() != type)
        return {};
    QImage image(matrix.cols, matrix.rows, format);
    if (image.isNull())
        return {};
    const size_t rowBytes = static_cast<size_t>(matrix.cols) * matrix.elemSize();
    for (int y = 0; y < matrix.rows; ++y)
        std::memcpy(image.scanLine(y), matrix.ptr(y), rowBytes);
    return image;
}

bool existsOrDangles(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

// Writes the input's files, map first; returns the error, empty on success. A file that
// appeared during the pass is still not replaced without --overwrite.
QString writeOutputs(const PlannedInput& input, const cv::Mat& motionCount, const cv::Mat& background, bool overwrite)
{
    const std::vector<std::pair<QString, QImage>> files = {
        {input.mapPath, MotionMap::render(motionCount, background)},
        {input.countsPath, input.countsPath.isEmpty() ? QImage() : MapRun::countsImage(motionCount)},
        {input.backgroundPath, input.backgroundPath.isEmpty() ? QImage() : MapRun::backgroundImage(background)},
    };
    for (const auto& [path, image] : files) {
        if (!overwrite && !path.isEmpty() && existsOrDangles(path))
            return tr("File '%1' exists; not replaced (--overwrite replaces it)").arg(path);
    }
    for (const auto& [path, image] : files) {
        if (!path.isEmpty() && !Utils::saveImage(image, path))
            return tr("Can't save image file '%1'").arg(path);
    }
    return {};
}

// The cores shared among the files analysed at once: one pass decodes with both cores of a
// two-core machine, two passes with one each, so that they do not fight over the cores.
// The last files of a run, fewer than --jobs, share the cores the others have left.
// `filesToStart` counts the file about to start and those after it.
int decoderThreads(int jobs, int filesToStart)
{
    const int atOnce = std::max(1, std::min(std::max(jobs, 1), filesToStart));
    return std::max(1, QThread::idealThreadCount() / atOnce);
}

// Pool thread.
void analyse(FileJob& job, const MapToolOptions& options, int decoderThreads, const std::atomic<int>& cancel,
             AtomicCounter& pairs)
{
    FileHooks hooks(job, cancel, pairs);
    MotionPassSettings settings;
    settings.blur = options.blur;
    settings.updateInterval = 0;
    settings.decoderThreads = decoderThreads;
    // Only the final map is written: the count need not wait for an early background.
    settings.backgroundAtMilestones = false;
    cv::Mat motionCount;
    cv::Mat background;
    // The name's bytes as the user gave them, which is what the file system knows it by.
    const QByteArray path = QFile::encodeName(job.input.video);
    switch (MotionPass::run(path, settings, motionCount, background, hooks)) {
    case MotionPassOutcome::OpenFailed:
        job.finish(FileState::Failed, tr("Can't open video file '%1'").arg(job.input.video));
        return;
    case MotionPassOutcome::Canceled:
        job.finish(FileState::Canceled);
        return;
    case MotionPassOutcome::Finished:
        break;
    }
    if (cancel.load(std::memory_order_relaxed) != 0) {
        job.finish(FileState::Canceled);
        return;
    }
    const QString error = writeOutputs(job.input, motionCount, background, options.overwrite);
    job.finish(error.isEmpty() ? FileState::Done : FileState::Failed, error);
}

class Driver {
public:
    Driver(const MapToolOptions& options, const std::vector<PlannedInput>& inputs,
           ProgressOutput& output, const std::atomic<int>& cancel)
        : m_options(options)
        , m_output(output)
        , m_cancel(cancel)
    {
        for (const PlannedInput& input : inputs) {
            auto job = std::make_unique<FileJob>();
            job->input = input;
            job->size = QFileInfo(input.video).size();
            m_jobs.push_back(std::move(job));
        }
        m_pool.setMaxThreadCount(qMax(options.jobs, 1));
    }

    int exec()
    {
        startAll();
        m_clock.start();
        m_rateClock.start();
        for (bool allEnded = false; !allEnded;) {
            allEnded = m_pool.waitForDone(kPollMs);
            reportChanges();
            m_output.show(snapshot(), m_clock.elapsed());
        }
        m_output.finish();
        return exitStatus();
    }

private:
    void startAll()
    {
        // All counted before the first starts, which may be at once.
        m_filesToStart = static_cast<int>(std::count_if(m_jobs.begin(), m_jobs.end(), [](const auto& job) {
            return job->input.error.isEmpty();
        }));
        for (const auto& job : m_jobs) {
            if (!job->input.error.isEmpty()) {
                m_output.error(job->input.error);
                job->reported = FileState::Failed;
                ++m_failures;
                continue;
            }
            FileJob* file = job.get();
            m_pool.start([this, file] {
                const int threads = decoderThreads(m_options.jobs, m_filesToStart.fetch_sub(1));
                analyse(*file, m_options, threads, m_cancel, m_pairs);
            });
        }
    }

    void reportChanges()
    {
        for (const auto& job : m_jobs) {
            const FileState state = job->state.load(std::memory_order_acquire);
            if (state == job->reported || isFinal(job->reported))
                continue;
            // A short file may have run and ended between two looks.
            if (job->reported == FileState::Waiting && (state == FileState::Running || state == FileState::Done))
                m_output.started(job->input.video);
            job->reported = state;
            reportEnd(*job, state);
        }
    }

    void reportEnd(const FileJob& job, FileState state)
    {
        switch (state) {
        case FileState::Done:
            m_output.done(job.input.video, job.input.mapPath);
            break;
        case FileState::Failed:
            m_output.error(job.error);
            ++m_failures;
            break;
        case FileState::Canceled:
            m_output.canceled(job.input.video);
            break;
        case FileState::Waiting:
        case FileState::Running:
            break;
        }
    }

    ProgressOutput::Snapshot snapshot()
    {
        ProgressOutput::Snapshot shot;
        for (const auto& job : m_jobs) {
            if (job->reported == FileState::Running)
                shot.running.push_back({job->input.video, progressPercent(job->position.load(std::memory_order_relaxed), job->size)});
            shot.finishedFiles += isFinal(job->reported) ? 1 : 0;
        }
        shot.totalFiles = static_cast<int>(m_jobs.size());
        if (m_rateClock.elapsed() >= kRateIntervalMs) {
            m_framesPerSecond = m_pairs.getCountPerSecond();
            m_rateClock.restart();
        }
        shot.framesPerSecond = m_framesPerSecond;
        return shot;
    }

    int exitStatus() const
    {
        if (m_cancel.load(std::memory_order_relaxed) != 0)
            return MapRun::kExitInterrupted;
        return m_failures > 0 ? MapRun::kExitFailure : MapRun::kExitSuccess;
    }

    const MapToolOptions& m_options;
    ProgressOutput& m_output;
    const std::atomic<int>& m_cancel;
    std::atomic<int> m_filesToStart{0};
    FileJobs m_jobs;
    AtomicCounter m_pairs;
    QThreadPool m_pool;
    QElapsedTimer m_clock;
    QElapsedTimer m_rateClock;
    float m_framesPerSecond = 0.0f;
    int m_failures = 0;
};

} // namespace

namespace MapRun {

int run(const MapToolOptions& options, const std::vector<PlannedInput>& inputs,
        ProgressOutput& output, const std::atomic<int>& cancel)
{
    return Driver(options, inputs, output, cancel).exec();
}

QImage countsImage(const cv::Mat& motionCount)
{
    return imageOf(motionCount, CV_8UC1, QImage::Format_Grayscale8);
}

QImage backgroundImage(const cv::Mat& background)
{
    return imageOf(background, CV_8UC3, QImage::Format_RGB888);
}

} // namespace MapRun
