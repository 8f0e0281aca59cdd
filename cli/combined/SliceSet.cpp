#include "SliceSet.h"

#include "CombinedActivity.h"
#include "ImageFile.h"
#include "Legend.h"
#include "MapImages.h"
#include "MapScale.h"
#include "MotionMap.h"
#include "MotionPass.h"
#include "OutputFile.h"
#include "OutputPlan.h"
#include "ZoneFigures.h"
#include "ZoneSpans.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QJsonObject>
#include <QMutexLocker>
#include <QSet>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <set>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// A slice's other files: "clip.slice-%1.png" -> "clip.slice-00h01m00s.legend.png".
QString companionPath(const QString& mapPattern, const QString& suffix, const QString& label)
{
    return OutputPlan::slicePath(mapPattern.left(mapPattern.lastIndexOf(QLatin1Char('.'))) + suffix, label);
}

// "HHhMMmSSs": `seconds` from the time line's start, or the clock time (UTC) then when the
// line's start is known.
QString labelOf(double seconds, const QDateTime& lineClock)
{
    const qint64 whole = static_cast<qint64>(std::llround(seconds));
    qint64 hours = whole / 3600;
    int minutes = static_cast<int>(whole / 60 % 60);
    int secondsOfMinute = static_cast<int>(whole % 60);
    if (lineClock.isValid()) {
        const QTime clock = lineClock.toUTC().addSecs(whole).time();
        hours = clock.hour();
        minutes = clock.minute();
        secondsOfMinute = clock.second();
    }
    const QChar zero(QLatin1Char('0'));
    return QStringLiteral("%1h%2m%3s").arg(hours, 2, 10, zero).arg(minutes, 2, 10, zero).arg(secondsOfMinute, 2, 10, zero);
}

} // namespace

SliceSet::SliceSet(const Settings& settings)
    : m_settings(settings)
{
}

QString SliceSet::error() const
{
    return m_folder.isValid() ? QString() : tr("Can't create a temporary folder: %1").arg(m_folder.errorString());
}

int SliceSet::series(const QString& pattern, const QString& name)
{
    QMutexLocker lock(&m_mutex);
    for (size_t i = 0; i < m_series.size(); ++i) {
        if (m_series[i].pattern == pattern)
            return static_cast<int>(i);
    }
    m_series.push_back({pattern, name, {}, {}});
    return static_cast<int>(m_series.size() - 1);
}

QString SliceSet::tempFile() const
{
    QMutexLocker lock(&m_mutex);
    return m_folder.filePath(QStringLiteral("%1.png").arg(m_files++));
}

void SliceSet::ZoneSeen::add(double lineTime, const ZoneSpans::Tally& tally)
{
    if (tally.movingPixels > 0) {
        firstMotion = pairsWithMotion == 0 ? lineTime : std::min(firstMotion, lineTime);
        lastMotion = pairsWithMotion == 0 ? lineTime : std::max(lastMotion, lineTime);
        ++pairsWithMotion;
    }
    if (tally.newEvents > 0)
        eventsBySecond[static_cast<std::int64_t>(std::floor(lineTime))] += tally.newEvents;
}

QString SliceSet::addPiece(int series, int source, int slice, const cv::Mat& events, int pairs, int sceneChanges,
                           std::vector<ZoneSeen> zones)
{
    const QString file = tempFile();
    if (!Utils::saveImage(MapImages::eventsImage(events), file))
        return tr("Can't save file '%1'").arg(file);
    QMutexLocker lock(&m_mutex);
    m_series[static_cast<size_t>(series)].slices[slice].push_back({source, file, pairs, sceneChanges, std::move(zones)});
    return {};
}

QString SliceSet::addSource(int series, int source, const cv::Mat& background, double from, double to,
                            double frameRate, const QString& lineClock)
{
    const QString file = tempFile();
    if (!Utils::saveImage(MapImages::backgroundImage(background), file))
        return tr("Can't save file '%1'").arg(file);
    QMutexLocker lock(&m_mutex);
    m_sources[source] = {file, from, to, frameRate};
    m_series[static_cast<size_t>(series)].lineClock = lineClock;
    return {};
}

QStringList SliceSet::write(QStringList& written, std::vector<Written>* slices)
{
    QStringList errors;
    QString error;
    const double scale = m_settings.scale > 0.0 ? m_settings.scale : chooseScale(error);
    if (!error.isEmpty())
        return {error};
    for (size_t i = 0; i < m_series.size(); ++i) {
        error = writeSeries(static_cast<int>(i), scale, written, slices);
        if (!error.isEmpty())
            errors << error;
    }
    return errors;
}

// One scale for every slice of the run, so that they compare side by side: over the sums,
// which only exist one at a time, so they are summed twice.
double SliceSet::chooseScale(QString& error) const
{
    MapScale::Histogram histogram;
    for (const Series& series : m_series) {
        for (const int slice : writtenSlices(series)) {
            histogram.add(sumOf(series.slices.at(slice), error));
            if (!error.isEmpty())
                return 0.0;
        }
    }
    return histogram.automatic();
}

// The slices with a piece of an input that was analysed to its end: the others' pieces stay
// out, as their inputs do.
std::vector<int> SliceSet::writtenSlices(const Series& series) const
{
    std::vector<int> slices;
    for (const auto& [slice, pieces] : series.slices) {
        if (std::any_of(pieces.begin(), pieces.end(), [this](const Piece& piece) { return m_sources.count(piece.source); }))
            slices.push_back(slice);
    }
    return slices;
}

cv::Mat SliceSet::sumOf(const std::vector<Piece>& pieces, QString& error) const
{
    cv::Mat sum;
    for (const Piece& piece : pieces) {
        if (!m_sources.count(piece.source))
            continue;
        const cv::Mat events = MapImages::matrixOf(QImage(piece.file), QImage::Format_Grayscale16, CV_16UC1);
        if (events.empty()) {
            error = tr("Can't read file '%1'").arg(piece.file);
            return {};
        }
        if (sum.empty())
            sum = cv::Mat::zeros(events.size(), CV_32SC1);
        cv::add(sum, events, sum, cv::noArray(), CV_32SC1);
    }
    return sum;
}

// Each zone's figures in a slice: its events from the slice's summed events (`sum`,
// 32-bit), counted as its events picture would hold them (saturating at 65535); its pairs,
// seconds and times from what the pieces' pairs saw, the seconds of inputs that share a
// second of the time line adding up.
QJsonArray SliceSet::zoneFiguresOf(const cv::Mat& sum, const std::vector<Piece>& pieces) const
{
    const std::vector<Zone>& zones = m_settings.zones;
    cv::Mat events;
    sum.convertTo(events, CV_16UC1);
    const ZoneSpans spans(events.size(), ZoneFile::polygonsOf(zones), MotionPass::maskAt(m_settings.mask, events.size()));
    const std::vector<ZoneSpans::Totals> totals = spans.totalsOf(events);
    const QJsonArray definitions = ZoneFile::toJson(zones);
    QJsonArray figures;
    for (size_t zone = 0; zone < zones.size(); ++zone) {
        ZoneFigures figure;
        figure.area = spans.areas()[zone];
        figure.totals = totals[zone];
        double motion = 0.0;
        bool motionKnown = true;
        std::map<std::int64_t, std::int64_t> eventsBySecond;
        for (const Piece& piece : pieces) {
            const auto source = m_sources.find(piece.source);
            if (source == m_sources.end() || zone >= piece.zones.size())
                continue;
            const ZoneSeen& seen = piece.zones[zone];
            const double frameRate = source->second.frameRate;
            motionKnown = motionKnown && frameRate > 0.0;
            motion += frameRate > 0.0 ? static_cast<double>(seen.pairsWithMotion) / frameRate : 0.0;
            figure.pairsWithMotion += seen.pairsWithMotion;
            if (seen.pairsWithMotion > 0) {
                figure.firstMotion = figure.moved ? std::min(figure.firstMotion, seen.firstMotion) : seen.firstMotion;
                figure.lastMotion = figure.moved ? std::max(figure.lastMotion, seen.lastMotion) : seen.lastMotion;
                figure.moved = true;
            }
            for (const auto& [second, count] : seen.eventsBySecond)
                eventsBySecond[second] += count;
        }
        figure.motionSeconds = motionKnown ? motion : -1.0;
        figure.takeBusiestOf(eventsBySecond);
        figures.append(figure.toJson(definitions[static_cast<int>(zone)].toObject()));
    }
    return figures;
}

QString SliceSet::labelOf(const Series& series, int slice) const
{
    return ::labelOf(slice * m_settings.sliceSeconds, CombinedActivity::readCreationTime(series.lineClock));
}

// Every name is checked before the first is written, so that a series is written whole or
// not at all.
QString SliceSet::namesError(const Settings& settings, const QString& pattern, const QString& lineClock,
                             const std::vector<int>& slices, bool planning, const QString& subject)
{
    const QDateTime clock = CombinedActivity::readCreationTime(lineClock);
    QSet<QString> labels;
    for (const int slice : slices) {
        const QString label = ::labelOf(slice * settings.sliceSeconds, clock);
        // Slices named by their clock time a whole day apart share a name: the later one must
        // not replace the earlier, --overwrite or not, which is about files of earlier runs.
        if (labels.contains(label) && planning)
            return tr("Two slices would both be saved as '%1' (a day apart); %2")
                .arg(OutputPlan::slicePath(pattern, label), subject);
        if (labels.contains(label))
            return tr("Two slices would both be saved as '%1' (a day apart); none written")
                .arg(OutputPlan::slicePath(pattern, label));
        labels.insert(label);
        QStringList paths{OutputPlan::slicePath(pattern, label)};
        if (settings.legends)
            paths << companionPath(pattern, QStringLiteral(".legend.png"), label);
        if (settings.events)
            paths << companionPath(pattern, QStringLiteral(".events.png"), label);
        for (const QString& path : paths) {
            if (settings.overwrite || !OutputFile::existsOrDangles(path))
                continue;
            if (planning)
                return tr("File '%1' exists; %2 (--overwrite replaces it)").arg(path, subject);
            return OutputFile::notReplacedError(path);
        }
    }
    return {};
}

QString SliceSet::clashBefore(const MapToolOptions& options, const QString& pattern, const QString& lineClock,
                              const std::vector<Span>& spans, const QString& subject)
{
    Settings settings;
    settings.sliceSeconds = options.sliceSeconds;
    settings.legends = options.legend;
    settings.events = options.data;
    settings.overwrite = options.overwrite;
    std::set<int> slices;
    for (const Span& span : spans) {
        // A line no slice number holds fails its pass instead; an empty span has no pair.
        if (!(std::abs(span.from) < MotionPass::kLatestTime) || !(std::abs(span.to) < MotionPass::kLatestTime)
            || !(span.to > span.from))
            continue;
        const double first = std::max(std::floor(span.from / settings.sliceSeconds), 0.0);
        const double last = std::max(std::ceil(span.to / settings.sliceSeconds) - 1.0, first);
        for (double slice = first; slice <= last && slices.size() < kSlicesLookedAt; ++slice)
            slices.insert(static_cast<int>(slice));
    }
    return namesError(settings, pattern, lineClock, std::vector<int>(slices.begin(), slices.end()), true, subject);
}

QString SliceSet::writeSeries(int index, double scale, QStringList& written, std::vector<Written>* slices) const
{
    const Series& series = m_series[static_cast<size_t>(index)];
    const std::vector<int> toWrite = writtenSlices(series);
    const QString error = namesError(m_settings, series.pattern, series.lineClock, toWrite, false, {});
    if (!error.isEmpty())
        return error;
    for (const int slice : toWrite) {
        Written outcome;
        outcome.series = index;
        const QString sliceError = writeSlice(series, slice, series.slices.at(slice), scale, written, outcome);
        if (!sliceError.isEmpty())
            return sliceError;
        if (slices)
            slices->push_back(outcome);
    }
    return {};
}

// The input the slice starts in; when it starts in a gap between inputs, the first input
// after the gap.
int SliceSet::backgroundSource(int slice, const std::vector<Piece>& pieces) const
{
    const double start = slice * m_settings.sliceSeconds;
    int best = -1;
    for (const Piece& piece : pieces) {
        const auto found = m_sources.find(piece.source);
        if (found == m_sources.end())
            continue;
        const Source& source = found->second;
        if (source.from <= start && start < source.to)
            return piece.source;
        if (best < 0 || source.from < m_sources.at(best).from)
            best = piece.source;
    }
    return best;
}

QString SliceSet::writeSlice(const Series& series, int slice, const std::vector<Piece>& pieces, double scale,
                             QStringList& written, Written& outcome) const
{
    QString error;
    const cv::Mat sum = sumOf(pieces, error);
    if (!error.isEmpty())
        return error;
    const Source& source = m_sources.at(backgroundSource(slice, pieces));
    const cv::Mat background = MapImages::matrixOf(QImage(source.background), QImage::Format_RGB888, CV_8UC3);
    const QImage map = MotionMap::render(sum, background, scale);
    const QString label = labelOf(series, slice);
    const QString mapPath = OutputPlan::slicePath(series.pattern, label);
    if (!Utils::saveImage(map, mapPath))
        return tr("Can't save image file '%1'").arg(mapPath);
    written << mapPath;
    const double start = slice * m_settings.sliceSeconds;
    double footage = 0.0;
    bool footageKnown = true;
    double end = 0.0;
    std::int64_t sceneChanges = 0;
    for (const Piece& piece : pieces) {
        sceneChanges += piece.sceneChanges;
        const auto found = m_sources.find(piece.source);
        if (found == m_sources.end())
            continue;
        footageKnown = footageKnown && found->second.frameRate > 0.0;
        footage += found->second.frameRate > 0.0 ? piece.pairs / found->second.frameRate : 0.0;
        end = std::max(end, found->second.to);
        if (std::find(outcome.sources.begin(), outcome.sources.end(), piece.source) == outcome.sources.end())
            outcome.sources.push_back(piece.source);
    }
    std::sort(outcome.sources.begin(), outcome.sources.end());
    outcome.seriesName = series.name;
    outcome.lineClock = series.lineClock;
    outcome.from = start;
    outcome.to = start + m_settings.sliceSeconds;
    outcome.mapPath = mapPath;
    outcome.eventsTotal = cv::sum(sum)[0];
    cv::minMaxLoc(sum, nullptr, &outcome.maxEvents);
    outcome.pixelsWithEventsShare = static_cast<double>(cv::countNonZero(sum)) / static_cast<double>(sum.total());
    outcome.footageSeconds = footageKnown ? footage : -1.0;
    outcome.sceneChanges = m_settings.steadyLight ? sceneChanges : -1;
    if (!m_settings.zones.empty())
        outcome.zones = zoneFiguresOf(sum, pieces);
    if (m_settings.legends || m_settings.reportLegends) {
        Legend::Content content = Legend::contentOf(
            series.name, Legend::timeSpan(series.lineClock, start, std::clamp(end - start, 0.0, m_settings.sliceSeconds)),
            scale, footageKnown ? footage : 0.0, {m_settings.maskName}, m_settings.steadyLight);
        content.zones = m_settings.zones;
        const QString path = m_settings.legends
            ? companionPath(series.pattern, QStringLiteral(".legend.png"), label)
            : tempFile();
        if (!Utils::saveImage(Legend::render(map, content), path))
            return tr("Can't save image file '%1'").arg(path);
        if (m_settings.legends)
            written << path;
        outcome.legendPath = path;
    }
    if (m_settings.events) {
        cv::Mat events;
        sum.convertTo(events, CV_16UC1); // saturates at 65535, as a single video's does
        const QString path = companionPath(series.pattern, QStringLiteral(".events.png"), label);
        if (!Utils::saveImage(MapImages::eventsImage(events), path))
            return tr("Can't save image file '%1'").arg(path);
        written << path;
    }
    return {};
}
