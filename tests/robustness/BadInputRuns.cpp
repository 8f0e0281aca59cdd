#include "BadInputRuns.h"

#include "MotionMap.h"
#include "Tremora.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRunnable>
#include <QThread>
#include <QThreadPool>
#include <QtTest>

#include <opencv2/core.hpp>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>

namespace BadInputRuns {
namespace {

constexpr int kScriptTimeoutMs = 180000;
constexpr int kFlipVariants = 10;
constexpr int kFlippedBytes = 10;
constexpr int kHeaderBytes = 1024;

class NeverCancelHooks final : public MotionPassHooks {
public:
    bool cancelRequested() override { return false; }
    void started() override { ++startedCount; }
    void positionChanged(std::int64_t) override {}
    void pairAnalysed() override { ++pairs; }
    void refresh(Refresh) override {}

    int startedCount = 0;
    int pairs = 0;
};

// Shared between the waiting test thread and the pool thread, so a pass that outlives its
// time bound still has somewhere to write.
struct PassShared {
    QByteArray utf8Path;
    PassRun run;
    std::atomic<bool> ended{false};
};

void runPassNow(PassShared& shared)
{
    NeverCancelHooks hooks;
    PassRun& run = shared.run;
    // As many decoder threads as the window gives a job that runs alone, which the job here
    // is: an undamaged file then decodes to the same pictures on both routes.
    MotionPassSettings settings;
    settings.decoderThreads = Tremora::decoderThreadsFor(1, QThread::idealThreadCount());
    run.outcome = MotionPass::run(shared.utf8Path, settings, run.counts, run.background, hooks);
    run.started = hooks.startedCount;
    run.pairs = hooks.pairs;
    run.map = MotionMap::render(run.counts, run.background);
    shared.ended.store(true, std::memory_order_release);
}

// Keeps this thread's event loop turning (queued row changes, a listening socket) until
// `ended` says so or the bound has passed.
template <typename Ended>
bool waitFor(Ended ended, int timeBoundMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!ended()) {
        if (timer.elapsed() > timeBoundMs)
            return false;
        QTest::qWait(2);
    }
    return true;
}

QString copyName(const QString& prefix, const QString& seed)
{
    return prefix + QLatin1Char('-') + QFileInfo(seed).fileName();
}

std::vector<int> truncationOffsets(int size)
{
    std::vector<int> offsets = {1, 16, 188, 512, size / 10, size / 4, size / 2, size * 3 / 4, size * 9 / 10, size - 1};
    for (int& offset : offsets)
        offset = std::clamp(offset, 0, std::max(size - 1, 0));
    return offsets;
}

QByteArray flipped(QByteArray bytes, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> position(0, bytes.size() - 1);
    std::uniform_int_distribution<int> mask(1, 255);
    for (int i = 0; i < kFlippedBytes; ++i) {
        const int at = position(random);
        bytes[at] = static_cast<char>(bytes.at(at) ^ mask(random));
    }
    return bytes;
}

QByteArray headerZeroed(QByteArray bytes)
{
    const int header = std::min(kHeaderBytes, bytes.size() / 2);
    std::fill(bytes.begin(), bytes.begin() + header, '\0');
    return bytes;
}

} // namespace

QStringList makeSeedClips(const QString& folder, QString* error)
{
    QProcess script;
    script.setProcessChannelMode(QProcess::MergedChannels);
    script.start(QStringLiteral(TREMORA_SEED_CORPUS_SCRIPT), {folder});
    const bool ok = script.waitForFinished(kScriptTimeoutMs) && script.exitStatus() == QProcess::NormalExit
                    && script.exitCode() == 0;
    if (!ok) {
        *error = QString::fromLocal8Bit(script.readAll());
        return {};
    }
    QStringList seeds;
    for (const QFileInfo& clip : QDir(folder).entryInfoList(QDir::Files, QDir::Name))
        seeds << clip.filePath();
    return seeds;
}

std::vector<Input> damagedCopies(const QString& seed, const QString& folder)
{
    const QByteArray bytes = readFile(seed);
    const QString seedName = QFileInfo(seed).fileName();
    const QDir dir(folder);
    std::vector<Input> copies;
    auto add = [&](const QString& prefix, const QByteArray& content) {
        const QString path = dir.filePath(copyName(prefix, seed));
        if (writeFile(path, content))
            copies.push_back({QStringLiteral("%1 %2").arg(seedName, prefix).toUtf8(), path, Expected::DoneOrFailed});
    };
    for (int offset : truncationOffsets(bytes.size()))
        add(QStringLiteral("cut%1").arg(offset), bytes.left(offset));
    const unsigned nameSeed = qHash(seedName);
    for (int variant = 0; variant < kFlipVariants; ++variant)
        add(QStringLiteral("flip%1").arg(variant), flipped(bytes, nameSeed + unsigned(variant)));
    add(QStringLiteral("zeroed"), headerZeroed(bytes));
    return copies;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

PassRun runPass(const QString& path, int timeBoundMs)
{
    auto shared = std::make_shared<PassShared>();
    shared->utf8Path = path.toUtf8();
    QThreadPool::globalInstance()->start(QRunnable::create([shared] { runPassNow(*shared); }));
    if (!waitFor([&] { return shared->ended.load(std::memory_order_acquire); }, timeBoundMs))
        return {};
    PassRun run = shared->run;
    run.ended = true;
    return run;
}

JobRun runJob(const QString& path, int timeBoundMs)
{
    // Left alive on a hang: the pool thread may still be using it.
    auto* job = new Tremora(path, QSize(1280, 720), 300);
    job->setAutoDelete(false);
    QThreadPool::globalInstance()->start(job);
    JobRun run;
    if (!waitFor([job] { return job->m_state.load() >= Tremora::Done; }, timeBoundMs))
        return run;
    QThreadPool::globalInstance()->waitForDone(timeBoundMs);
    // The row changes that the pool thread queued.
    QCoreApplication::processEvents();
    run.ended = true;
    run.state = job->m_state.load();
    run.text = job->text();
    run.result = job->getResult();
    run.counts = job->m_motionCount.clone();
    delete job;
    return run;
}

bool sameCounts(const cv::Mat& a, const cv::Mat& b)
{
    if (a.size() != b.size() || a.type() != b.type())
        return false;
    return a.empty() || cv::norm(a, b, cv::NORM_INF) == 0.0;
}

QString disagreement(const PassRun& pass, const JobRun& job, const QString& fileName, Expected expected)
{
    if (!pass.ended)
        return QStringLiteral("the pass did not end within the time bound");
    if (!job.ended)
        return QStringLiteral("the job did not end within the time bound");
    switch (pass.outcome) {
    case MotionPassOutcome::OpenFailed:
        if (expected == Expected::Done)
            return QStringLiteral("the pass could not open the file");
        if (job.state != Tremora::Failed || job.text != fileName + QStringLiteral(" (failed)"))
            return QStringLiteral("open failed, but the job shows state %1, '%2'").arg(job.state).arg(job.text);
        if (pass.started != 0 || !pass.counts.empty() || !job.counts.empty() || !job.result.isNull())
            return QStringLiteral("a failed open went on to count");
        return {};
    case MotionPassOutcome::Finished:
        if (expected == Expected::Failed)
            return QStringLiteral("the pass opened the file");
        if (job.state != Tremora::Done || job.text != fileName + QStringLiteral(" (done)"))
            return QStringLiteral("the pass finished, but the job shows state %1, '%2'").arg(job.state).arg(job.text);
        if (pass.started != 1 || pass.counts.size() != pass.background.size())
            return QStringLiteral("the pass did not set up its maps once, at one size");
        // Decoder threads conceal damage in ways that depend on their timing, so a damaged
        // file's counts may differ from run to run; only their size must agree.
        if (expected == Expected::DoneOrFailed)
            return job.counts.size() == pass.counts.size() && job.result.size() == pass.map.size()
                ? QString()
                : QStringLiteral("the job's maps have another size than the pass's");
        if (!sameCounts(pass.counts, job.counts))
            return QStringLiteral("the job counted otherwise than the pass");
        if (pass.map.isNull() != pass.counts.empty()
            || (!pass.map.isNull() && pass.map.size() != QSize(pass.counts.cols, pass.counts.rows)))
            return QStringLiteral("the map does not have the size of the counts");
        if (job.result != pass.map)
            return QStringLiteral("the job's map differs from the pass's");
        return {};
    case MotionPassOutcome::Canceled:
        break;
    case MotionPassOutcome::TimeOutOfRange:
        return QStringLiteral("the pass refused a time it was not asked to place");
    }
    return QStringLiteral("the pass ended canceled without a request");
}

} // namespace BadInputRuns
