#include "InputOutput.h"

#include "ImageFile.h"
#include "Legend.h"
#include "MotionMap.h"
#include "OutputFile.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace {

// Seconds of video a pass analysed: its pairs at the stream's frame rate; -1 when unknown.
double footageOf(const MotionPassFacts& facts)
{
    return facts.video.frameRate > 0.0 ? facts.pairsAnalysed / facts.video.frameRate : -1.0;
}

} // namespace

FinishedInput::FinishedInput(const PlannedInput& input, const MapToolOptions& options, const MotionPassFacts& facts,
                             const cv::Mat& motionCount, const cv::Mat& background)
    : input(input)
    , options(options)
    , facts(facts)
    , motionCount(motionCount)
    , background(background)
{
}

const QImage& FinishedInput::map()
{
    if (m_map.isNull()) {
        m_map = mapScale > 0.0 ? MotionMap::render(facts.exactCounts, background, mapScale)
                               : MotionMap::render(motionCount, background);
    }
    return m_map;
}

const QImage& FinishedInput::legend()
{
    if (m_legend.isNull()) {
        const double footage = footageOf(facts);
        const QString span = Legend::timeSpan(QString::fromStdString(facts.video.creationTime),
                                              options.hasStart ? options.start : 0.0, footage);
        Legend::Content content =
            Legend::contentOf(QFileInfo(input.video).fileName(), span,
                              mapScale > 0.0 ? mapScale : MotionMap::kDefaultScale, footage, {options.maskPath},
                              options.steadyLight);
        content.zones = options.zones;
        m_legend = Legend::render(map(), content);
    }
    return m_legend;
}

Manifest::Content FinishedInput::manifestContent() const
{
    Manifest::Content content;
    content.input = &input;
    content.options = &options;
    content.facts = &facts;
    content.outcome = outcome;
    content.error = error;
    content.written = written;
    content.pairsWithMotion = pairsWithMotion;
    content.mapScale = mapScale;
    content.zones = zones;
    return content;
}

void FinishedInput::fail(const QString& why)
{
    outcome = Manifest::Outcome::Failed;
    error = why;
}

InputOutput::InputOutput(const QString& path, bool replaces)
    : m_path(path)
    , m_replaces(replaces)
{
}

QString InputOutput::refusal() const
{
    return !m_replaces && OutputFile::existsOrDangles(m_path) ? OutputFile::notReplacedError(m_path) : QString();
}

void InputOutput::pairCounted(const MotionPassHooks::PairRecord&)
{
}

QString InputOutput::failureOf(const FinishedInput&) const
{
    return {};
}

void InputOutput::stepEnded(int, double, const cv::Mat&)
{
}

bool InputOutput::recordsEveryOutcome() const
{
    return false;
}

QString InputOutput::saveImage(const QImage& image) const
{
    if (!Utils::saveImage(image, m_path))
        return QCoreApplication::translate("MapTool", "Can't save image file '%1'").arg(m_path);
    return {};
}
