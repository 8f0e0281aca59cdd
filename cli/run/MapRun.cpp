#include "MapRun.h"

#include "AtomicCounter.h"
#include "DecoderThreads.h"
#include "InputOutputs.h"
#include "MapScale.h"
#include "Manifest.h"
#include "OutputFile.h"
#include "MotionPass.h"
#include "ProgressOutput.h"
#include "ReportData.h"
#include "ReportFolder.h"
#include "ReportPage.h"
#include "ReportStaging.h"
#include "SliceSet.h"

#include <QCoreApplication>
#include <QDir>
#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QSet>
#include <QThread>
#include <QThreadPool>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
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
    int index = 0;  // in the order given
    PlannedInput input;
    QString key;                     // names the input's files in a report
    QJsonObject manifest;            // with --data or --report, made with `error`
    QString reportMapFile;           // the card's map, when the pass put it in the report itself
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

// Where a pass's slices go (--slice): the series of the set they belong to.
struct SliceTarget {
    SliceSet* set = nullptr;
    int series = 0;
};

class FileHooks final : public MotionPassHooks {
public:
    // `outputs` and `seconds` receive every pair's record; `seconds` is null without --report.
    // `slices` receives the slices with events; its set is null without --slice.
    FileHooks(FileJob& job, const std::atomic<int>& cancel, AtomicCounter& pairs, InputOutputList& outputs,
              ReportData::ActivityBySecond* seconds, SliceTarget slices)
        : m_job(job)
        , m_cancel(cancel)
        , m_pairs(pairs)
        , m_outputs(outputs)
        , m_seconds(seconds)
        , m_slices(slices)
    {
    }

    bool cancelRequested() override { return m_cancel.load(std::memory_order_relaxed) != 0; }
    void started() override { m_job.state.store(FileState::Running, std::memory_order_release); }
    void positionChanged(std::int64_t bytes) override { m_job.position.store(bytes, std::memory_order_relaxed); }
    void pairAnalysed() override { m_pairs.increment(); }
    void pairCounted(const PairRecord& record) override
    {
        for (const auto& output : m_outputs)
            output->pairCounted(record);
        if (m_seconds)
            m_seconds->add(record);
        m_firstPairTime = m_pairsCounted == 0 ? record.time : m_firstPairTime;
        m_lastPairTime = record.time;
        ++m_pairsCounted;
        m_pairsWithMotion += record.movingPixels > 0 ? 1 : 0;
        ++m_slicePairs;
        if (m_slices.set && record.zones)
            addToSliceZones(record);
        if (record.sceneChange) {
            ++m_sliceSceneChanges;
            m_sceneChanges.add(record.time);
        }
    }
    void stepEnded(int step, double lastPairTime, const cv::Mat& exactCounts) override
    {
        for (const auto& output : m_outputs)
            output->stepEnded(step, lastPairTime, exactCounts);
    }
    // A slice without an event would only show the background; it is not written.
    void sliceEnded(int slice, double, const cv::Mat& exactCounts) override
    {
        const int pairs = std::exchange(m_slicePairs, 0);
        const int sceneChanges = std::exchange(m_sliceSceneChanges, 0);
        std::vector<SliceSet::ZoneSeen> zones = std::exchange(m_sliceZones, {});
        if (!m_slices.set || !m_sliceError.isEmpty() || cv::countNonZero(exactCounts) == 0)
            return;
        m_sliceError = m_slices.set->addPiece(m_slices.series, m_job.index, slice, exactCounts, pairs, sceneChanges,
                                              std::move(zones));
    }
    // Only the final map is written, so intermediate ones are never rendered.
    void refresh(Refresh) override {}

    // Why a slice could not be kept; empty when all were.
    const QString& sliceError() const { return m_sliceError; }
    // The times of the first and the last pair counted (with --data, --report or --slice).
    double firstPairTime() const { return m_firstPairTime; }
    double lastPairTime() const { return m_lastPairTime; }
    // Pairs in which at least one pixel moved (with --data, --report or --slice).
    std::int64_t pairsWithMotion() const { return m_pairsWithMotion; }
    // The scene changes counted (with --steady-light and --data, --report or --slice).
    const Manifest::SceneChanges& sceneChanges() const { return m_sceneChanges; }

private:
    // On the slices' time line, where the slices' seconds are numbered.
    void addToSliceZones(const PairRecord& record)
    {
        m_sliceZones.resize(record.zones->size());
        const double lineTime = record.time + m_job.input.sliceOffset;
        for (size_t zone = 0; zone < m_sliceZones.size(); ++zone)
            m_sliceZones[zone].add(lineTime, (*record.zones)[zone]);
    }

    FileJob& m_job;
    const std::atomic<int>& m_cancel;
    AtomicCounter& m_pairs;
    InputOutputList& m_outputs;
    ReportData::ActivityBySecond* m_seconds;
    SliceTarget m_slices;
    QString m_sliceError;
    std::int64_t m_pairsCounted = 0;
    std::int64_t m_pairsWithMotion = 0;
    int m_slicePairs = 0;
    int m_sliceSceneChanges = 0;
    std::vector<SliceSet::ZoneSeen> m_sliceZones;
    Manifest::SceneChanges m_sceneChanges;
    double m_firstPairTime = 0.0;
    double m_lastPairTime = 0.0;
};

// The events at the top of the map's colour scale, when --scale asks for one; 0 otherwise.
double mapScaleOf(const MapToolOptions& options, const MotionPassFacts& facts)
{
    if (!options.scaleGiven)
        return 0.0;
    return options.scaleAuto ? MapScale::automatic({facts.exactCounts}) : options.scale;
}

MotionPassSettings settingsFor(const MapToolOptions& options, const PlannedInput& input, const cv::Mat& mask,
                               int decoderThreads)
{
    MotionPassSettings settings;
    settings.blur = options.blur;
    settings.updateInterval = 0;
    settings.decoderThreads = decoderThreads;
    // Only the final map is written: the count need not wait for an early background.
    settings.backgroundAtMilestones = false;
    // The data and the slices need every pair's activity, which only the detailed count
    // reports; a chosen scale, a combination and a film read no more than the exact counts.
    settings.detailed = options.data || options.sliceSeconds > 0.0;
    settings.exactCounts = options.scaleGiven || !options.combineName.isEmpty() || options.timelapseSeconds > 0.0;
    settings.sliceSeconds = options.sliceSeconds;
    settings.stepSeconds = options.timelapseSeconds;
    settings.sliceOffset = input.sliceOffset;
    settings.mask = mask;
    settings.windowStart = options.start;
    settings.windowEnd = options.end;
    settings.steadyLight = options.steadyLight;
    settings.sceneChangeShare = options.sceneChangeShare;
    settings.zones = ZoneFile::polygonsOf(options.zones);
    if (!options.reportDir.isEmpty())
        settings.eventCellSize = ReportData::kCellSize;
    return settings;
}

// Pool thread. An input of a sink that needs no pass; `reportStaging`, when not empty,
// receives its card's files.
void take(FileJob& job, ResultSink& sink, const std::atomic<int>& cancel, const QString& reportStaging,
          const ReportStaging::MapColours& colours)
{
    if (cancel.load(std::memory_order_relaxed) != 0) {
        job.finish(FileState::Canceled);
        return;
    }
    job.state.store(FileState::Running, std::memory_order_release);
    QString error = sink.take(job.index);
    if (error.isEmpty() && !reportStaging.isEmpty()) {
        error = ReportStaging::writeManifestInput(reportStaging, job.key, job.input.video, colours, &job.manifest);
        job.reportMapFile = QStringLiteral("maps/%1.png").arg(job.key);
    }
    job.finish(error.isEmpty() ? FileState::Done : FileState::Failed, error);
}

// What every pass of a run shares. Set up before the first pass starts.
struct RunContext {
    const MapToolOptions& options;
    const cv::Mat& mask;
    const std::atomic<int>& cancel;
    AtomicCounter& pairs;
    QString reportStaging;       // receives each input's report data; empty without --report
    ResultSink* sink = nullptr;  // takes each input's results instead (--combine)
    SliceSet* slices = nullptr;  // keeps each input's slices (--slice)
};

// The name a slice's legend gives its series: the video's, or the combined map's.
QString seriesNameOf(const MapToolOptions& options, const PlannedInput& input)
{
    return options.combineName.isEmpty() ? QFileInfo(input.video).fileName() : options.combineName;
}

// Pool thread. A pass that ended well hands its background and span to its slices' series.
QString keepSlices(const FileJob& job, const RunContext& context, const SliceTarget& target, const FileHooks& hooks,
                   const MotionPassFacts& facts, const cv::Mat& background)
{
    if (!target.set)
        return {};
    if (!hooks.sliceError().isEmpty())
        return hooks.sliceError();
    // A video's own time line starts at the clock time it records, if any.
    const QString lineClock = context.options.combineName.isEmpty() ? QString::fromStdString(facts.video.creationTime)
                                                                     : job.input.sliceLineClock;
    const double interval = facts.video.frameRate > 0.0 ? 1.0 / facts.video.frameRate : 0.0;
    return target.set->addSource(target.series, job.index, background, hooks.firstPairTime() + job.input.sliceOffset,
                                 hooks.lastPairTime() + interval + job.input.sliceOffset, facts.video.frameRate,
                                 lineClock);
}

// Pool thread. The card's files of an analysed input: its data, its map (the file the run
// writes, or rendered here when the run writes none of its own) and its legend strip.
QString stageReport(FileJob& job, const RunContext& context, FinishedInput& finished,
                    const ReportData::ActivityBySecond& seconds)
{
    const QString& staging = context.reportStaging;
    const MotionPassFacts& facts = finished.facts;
    QString error = ReportStaging::writeData(staging, job.key, seconds.seconds(), context.options.steadyLight,
                                             facts.eventTimes, facts.video.width, facts.video.height, seconds.zones());
    if (!error.isEmpty())
        return error;
    if (job.input.mapPath.isEmpty() || context.sink) {
        error = ReportStaging::writeMap(staging, job.key, finished.map(), &job.reportMapFile);
        if (!error.isEmpty())
            return error;
    }
    return ReportStaging::writeLegendStrip(staging, job.key, finished.legend(), finished.map().height());
}

// Pool thread. A pass of --combine that ended well: the sink takes it in place of the input's
// own files.
QString passToSink(FileJob& job, const RunContext& context, InputOutputList& outputs, FinishedInput& finished,
                   const ReportData::ActivityBySecond* seconds, const SliceTarget& sliceTarget, const FileHooks& hooks)
{
    InputOutputs::writeAll(outputs, finished);
    QString error = finished.error;
    if (error.isEmpty())
        error = context.sink->takePass(job.index, finished.facts, finished.background, finished.zones);
    if (error.isEmpty())
        error = keepSlices(job, context, sliceTarget, hooks, finished.facts, finished.background);
    if (!seconds || !error.isEmpty())
        return error;
    // The input writes no file of its own, and the combined map has the combination's scale:
    // the input's card records neither.
    Manifest::Content content = finished.manifestContent();
    content.mapScale = 0.0;
    content.written.clear();
    content.sceneChanges = &hooks.sceneChanges();
    job.manifest = Manifest::build(content);
    return stageReport(job, context, finished, *seconds);
}

QString unplaceableTimeError(const PlannedInput& input, const MotionPassFacts& facts)
{
    const QString seconds = QString::number(facts.unplaceableTime, 'g', 12);
    // On a line of several inputs, the input before may be what lies about its length.
    if (input.sliceOffset != 0.0)
        return tr("'%1' has a frame %2 seconds into the time line of the inputs, beyond any real recording "
                  "(a damaged file?): its slices can't be placed")
            .arg(input.video, seconds);
    return tr("'%1' has a frame %2 seconds from its start, beyond any real recording (a damaged file?): "
              "its slices and report data can't be placed")
        .arg(input.video, seconds);
}

// Pool thread.
void analyse(FileJob& job, const RunContext& context, int decoderThreads)
{
    const MapToolOptions& options = context.options;
    if (context.sink && context.sink->takesWithoutPass(job.index)) {
        take(job, *context.sink, context.cancel, context.reportStaging,
             {options.scaleGiven, options.scaleAuto, options.scale});
        return;
    }
    InputOutputList outputs = context.sink ? InputOutputs::forCombination(job.input, options)
                                           : InputOutputs::of(job.input, options);
    std::unique_ptr<ReportData::ActivityBySecond> seconds;
    if (!context.reportStaging.isEmpty())
        seconds = std::make_unique<ReportData::ActivityBySecond>();
    SliceTarget sliceTarget;
    if (context.slices) {
        sliceTarget.set = context.slices;
        sliceTarget.series = context.slices->series(job.input.slicePattern, seriesNameOf(options, job.input));
    }
    FileHooks hooks(job, context.cancel, context.pairs, outputs, seconds.get(), sliceTarget);
    cv::Mat motionCount;
    cv::Mat background;
    MotionPassFacts facts;
    // The name's bytes as the user gave them, which is what the file system knows it by.
    const QByteArray path = QFile::encodeName(job.input.video);
    const MotionPassOutcome outcome = MotionPass::run(path, settingsFor(options, job.input, context.mask, decoderThreads),
                                                      motionCount, background, hooks, &facts);
    FinishedInput finished(job.input, options, facts, motionCount, background);
    finished.pairsWithMotion = hooks.pairsWithMotion();
    finished.cancel = &context.cancel;
    if (outcome == MotionPassOutcome::OpenFailed || outcome == MotionPassOutcome::TimeOutOfRange) {
        finished.fail(outcome == MotionPassOutcome::OpenFailed ? tr("Can't open video file '%1'").arg(job.input.video)
                                                               : unplaceableTimeError(job.input, facts));
        InputOutputs::writeAll(outputs, finished);
        job.manifest = finished.manifest;
        job.finish(FileState::Failed, finished.error);
        return;
    }
    if (outcome == MotionPassOutcome::Canceled || context.cancel.load(std::memory_order_relaxed) != 0) {
        finished.outcome = Manifest::Outcome::Canceled;
        InputOutputs::writeAll(outputs, finished);
        job.manifest = finished.manifest;
        job.finish(FileState::Canceled);
        return;
    }
    finished.mapScale = mapScaleOf(options, facts);
    if (context.sink) {
        const QString error = passToSink(job, context, outputs, finished, seconds.get(), sliceTarget, hooks);
        job.finish(error.isEmpty() ? FileState::Done : FileState::Failed, error);
        return;
    }
    const QString sliceError = keepSlices(job, context, sliceTarget, hooks, facts, background);
    if (!sliceError.isEmpty())
        finished.fail(sliceError);
    InputOutputs::writeAll(outputs, finished);
    job.manifest = finished.manifest;
    QString error = finished.error;
    if (seconds && error.isEmpty())
        error = stageReport(job, context, finished, *seconds);
    job.finish(error.isEmpty() ? FileState::Done : FileState::Failed, error);
}

class Driver {
public:
    Driver(const MapToolOptions& options, const std::vector<PlannedInput>& inputs,
           ProgressOutput& output, const std::atomic<int>& cancel, const cv::Mat& mask, ReportFolder* report,
           ResultSink* sink)
        : m_options(options)
        , m_report(report)
        , m_output(output)
        , m_cancel(cancel)
        , m_context{options, mask, cancel, m_pairs, {}, sink, nullptr}
    {
        if (options.sliceSeconds > 0.0)
            m_slices = std::make_unique<SliceSet>(sliceSettingsOf(options, mask));
        for (const PlannedInput& input : inputs) {
            auto job = std::make_unique<FileJob>();
            job->index = static_cast<int>(m_jobs.size());
            job->input = input;
            job->key = QString::number(m_jobs.size() + 1);
            job->size = QFileInfo(input.video).size();
            // Series in the order given, which is the order they are written in.
            if (m_slices && input.error.isEmpty())
                m_slices->series(input.slicePattern, seriesNameOf(options, input));
            m_jobs.push_back(std::move(job));
        }
        m_pool.setMaxThreadCount(qMax(options.jobs, 1));
    }

    int exec()
    {
        if (m_slices && !m_slices->error().isEmpty()) {
            m_output.error(m_slices->error());
            return MapRun::kExitFailure;
        }
        m_context.slices = m_slices.get();
        startAll();
        m_clock.start();
        m_rateClock.start();
        for (bool allEnded = false; !allEnded;) {
            allEnded = m_pool.waitForDone(kPollMs);
            reportChanges();
            m_output.show(snapshot(), m_clock.elapsed());
        }
        m_output.finish();
        finishSink();
        writeSlices();
        writeReport();
        return exitStatus();
    }

private:
    void startAll()
    {
        if (m_report)
            m_context.reportStaging = m_report->stagingPath();
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
                const int running = m_filesRunning.fetch_add(1) + 1;
                const int threads = MapRun::decoderThreadsFor(m_options.jobs, m_filesToStart.fetch_sub(1),
                                                              running, QThread::idealThreadCount());
                analyse(*file, m_context, threads);
                m_filesRunning.fetch_sub(1);
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
            m_output.done(job.input.video, job.input.mapPath.isEmpty()
                                               ? OutputPlan::slicePath(job.input.slicePattern, QStringLiteral("*"))
                                               : job.input.mapPath);
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

    static SliceSet::Settings sliceSettingsOf(const MapToolOptions& options, const cv::Mat& mask)
    {
        SliceSet::Settings settings;
        settings.sliceSeconds = options.sliceSeconds;
        settings.scale = options.scaleGiven && options.scaleAuto ? 0.0 : options.scale;
        settings.legends = options.legend;
        settings.events = options.data;
        settings.maskName = options.maskPath.isEmpty() ? QString() : QFileInfo(options.maskPath).fileName();
        settings.overwrite = options.overwrite;
        settings.reportLegends = !options.reportDir.isEmpty();
        settings.steadyLight = options.steadyLight;
        settings.zones = options.zones;
        settings.mask = mask;
        return settings;
    }

    // The slices once every pass has ended, when none was canceled: their scale may depend on
    // all of them, and with --combine a slice on the inputs of several passes.
    void writeSlices()
    {
        if (!m_slices || m_cancel.load(std::memory_order_relaxed) != 0)
            return;
        QStringList written;
        for (const QString& error : m_slices->write(written, m_report ? &m_writtenSlices : nullptr)) {
            m_output.error(error);
            ++m_failures;
        }
    }

    // What the sink makes of every input once all have ended, when none was canceled.
    void finishSink()
    {
        if (!m_context.sink || m_cancel.load(std::memory_order_relaxed) != 0)
            return;
        for (const QString& error : m_context.sink->finish()) {
            m_output.error(error);
            ++m_failures;
        }
    }

    // The page over every input once all have ended, also after a cancel: the inputs done
    // until then are worth their report, and the others' cards say they were canceled.
    void writeReport()
    {
        if (!m_report)
            return;
        std::vector<ReportCard> cards;
        std::vector<ReportPart> parts;
        for (const auto& job : m_jobs) {
            cards.push_back(cardOf(*job));
            parts.push_back(cards.back().parts.front());
        }
        QString error = addSliceCards(parts, cards);
        if (error.isEmpty() && m_context.sink && m_cancel.load(std::memory_order_relaxed) == 0) {
            for (ReportCard& card : m_context.sink->reportCards(m_report->stagingPath(), parts, &error))
                cards.push_back(withData(std::move(card)));
        }
        if (error.isEmpty())
            error = writePage(cards);
        if (!error.isEmpty()) {
            m_output.error(error);
            ++m_failures;
        }
    }

    // A card for every slice written, drawing the inputs in it (--slice).
    QString addSliceCards(const std::vector<ReportPart>& inputParts, std::vector<ReportCard>& cards) const
    {
        for (size_t i = 0; i < m_writtenSlices.size(); ++i) {
            const SliceSet::Written& slice = m_writtenSlices[i];
            std::vector<ReportPart> parts;
            for (const int source : slice.sources) {
                ReportPart part = inputParts[static_cast<size_t>(source)];
                part.offset = m_jobs[static_cast<size_t>(source)]->input.sliceOffset;
                parts.push_back(part);
            }
            QString error;
            cards.push_back(withData(ReportStaging::sliceCard(m_report->stagingPath(),
                                                              QStringLiteral("s%1").arg(i + 1), slice, parts, &error)));
            if (!error.isEmpty())
                return error;
        }
        return {};
    }

    // Whether the card's parts brought their activity and cells into the report.
    ReportCard withData(ReportCard card) const
    {
        const QString data = m_report->stagingPath() + QStringLiteral("/data/");
        for (const ReportPart& part : card.parts) {
            card.hasActivity = card.hasActivity || QFileInfo::exists(data + part.key + QStringLiteral(".activity.js"));
            card.hasCells = card.hasCells || QFileInfo::exists(data + part.key + QStringLiteral(".cells.js"));
        }
        // A zone's series sums every part's on the card's line, so each part must bring its own.
        card.hasZoneSeries = !card.parts.empty()
                             && std::all_of(card.parts.begin(), card.parts.end(), [&](const ReportPart& part) {
                                    return QFileInfo::exists(data + part.key + QStringLiteral(".zones.js"));
                                });
        return card;
    }

    ReportCard cardOf(const FileJob& job) const
    {
        const QString staging = m_report->stagingPath();
        QString mapFile;
        if (job.reported == FileState::Done && !job.reportMapFile.isEmpty()) {
            mapFile = job.reportMapFile;
        } else if (job.reported == FileState::Done) {
            mapFile = QStringLiteral("maps/%1.%2").arg(job.key, QFileInfo(job.input.mapPath).suffix());
            if (!QFile::copy(job.input.mapPath, staging + QLatin1Char('/') + mapFile))
                mapFile.clear();
        }
        // An input that is a manifest stands for the video it names.
        const QString video = job.manifest.value(QLatin1String("input")).toObject().value(QLatin1String("path"))
                                  .toString(job.input.video);
        ReportCard card = ReportPage::inputCard(job.key, video, job.manifest, job.input.error, mapFile,
                                                m_report->finalPath());
        // One canceled before it started has no manifest to say so.
        if (job.reported == FileState::Canceled) {
            card.status = QStringLiteral("canceled");
            card.error.clear();
        }
        // One failed in the sink has a manifest of a pass that ended well.
        if (job.reported == FileState::Failed && !job.error.isEmpty()) {
            card.status = QStringLiteral("failed");
            card.error = job.error;
        }
        const QString legend = QStringLiteral("maps/%1.legend.png").arg(job.key);
        if (!mapFile.isEmpty() && QFileInfo::exists(staging + QLatin1Char('/') + legend))
            card.legendFile = legend;
        if (!mapFile.isEmpty() && job.reported == FileState::Done)
            ReportStaging::copyFilm(staging, job.key, job.input.filmPath, &card.filmFile);
        return withData(card);
    }

    QString writePage(const std::vector<ReportCard>& cards) const
    {
        const QString staging = m_report->stagingPath();
        const QByteArray page = ReportPage::render(tr("Tremora report"), cards);
        if (page.isEmpty() || !OutputFile::write(staging + QStringLiteral("/index.html"), page, true).isEmpty())
            return tr("Can't write report folder '%1'").arg(m_report->finalPath());
        for (const auto& [name, bytes] : ReportPage::assets()) {
            if (bytes.isEmpty() || !OutputFile::write(staging + QLatin1Char('/') + name, bytes, true).isEmpty())
                return tr("Can't write report folder '%1'").arg(m_report->finalPath());
        }
        return m_report->publish();
    }

    int exitStatus() const
    {
        if (m_cancel.load(std::memory_order_relaxed) != 0)
            return MapRun::kExitInterrupted;
        return m_failures > 0 ? MapRun::kExitFailure : MapRun::kExitSuccess;
    }

    const MapToolOptions& m_options;
    ReportFolder* m_report;
    ProgressOutput& m_output;
    const std::atomic<int>& m_cancel;
    AtomicCounter m_pairs;
    RunContext m_context;
    std::unique_ptr<SliceSet> m_slices;
    std::vector<SliceSet::Written> m_writtenSlices;
    std::atomic<int> m_filesToStart{0};
    // Files whose pass has started and not yet ended, counted on the pool's threads.
    std::atomic<int> m_filesRunning{0};
    FileJobs m_jobs;
    QThreadPool m_pool;
    QElapsedTimer m_clock;
    QElapsedTimer m_rateClock;
    float m_framesPerSecond = 0.0f;
    int m_failures = 0;
};

} // namespace

namespace MapRun {

int run(const MapToolOptions& options, const std::vector<PlannedInput>& inputs,
        ProgressOutput& output, const std::atomic<int>& cancel, const cv::Mat& mask, ReportFolder* report,
        ResultSink* sink)
{
    return Driver(options, inputs, output, cancel, mask, report, sink).exec();
}

int decoderThreadsFor(int jobs, int filesToStart, int filesRunning, int cores)
{
    const int atOnce = std::max({1, filesRunning, std::min(std::max(jobs, 1), filesToStart)});
    return DecoderThreads::forPass(atOnce, cores, DecoderThreads::Sharing::SplitCores);
}

} // namespace MapRun
