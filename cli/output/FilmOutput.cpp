#include "FilmOutput.h"

#include "Film.h"
#include "MotionMap.h"

#include <QFileInfo>

std::unique_ptr<InputOutput> FilmOutput::make(const PlannedInput& input, const MapToolOptions& options)
{
    if (input.filmPath.isEmpty())
        return nullptr;
    return std::make_unique<FilmOutput>(input.filmPath, options.overwrite, options);
}

FilmOutput::FilmOutput(const QString& path, bool replaces, const MapToolOptions& options)
    : InputOutput(path, replaces)
    , m_options(options)
{
}

void FilmOutput::stepEnded(int step, double lastPairTime, const cv::Mat& exactCounts)
{
    if (!m_opened) {
        m_opened = true;
        const QFileInfo film(path());
        m_steps.openTemporary(film.absolutePath(), film.fileName());
    }
    m_steps.add({step, lastPairTime}, exactCounts);
}

QString FilmOutput::role() const
{
    return QStringLiteral("timelapse");
}

QString FilmOutput::write(FinishedInput& finished)
{
    const QString error = m_steps.finish();
    if (!error.isEmpty())
        return error;
    Film::Settings settings;
    settings.path = path();
    settings.overwrite = replaces();
    settings.stepSeconds = m_options.timelapseSeconds;
    settings.windowSeconds = m_options.timelapseWindowSeconds;
    settings.scale = finished.mapScale > 0.0 ? finished.mapScale : MotionMap::kDefaultScale;
    settings.name = QFileInfo(finished.input.video).fileName();
    settings.lineClock = QString::fromStdString(finished.facts.video.creationTime);
    settings.cancel = finished.cancel;
    const QString steps = m_steps.path();
    return Film::write(settings, steps.isEmpty() ? QStringList() : QStringList{steps}, finished.background);
}

void FilmStepsOutput::stepEnded(int step, double lastPairTime, const cv::Mat& exactCounts)
{
    if (!m_opened) {
        m_opened = true;
        m_steps.open(path());
    }
    m_steps.add({step, lastPairTime}, exactCounts);
}

QString FilmStepsOutput::role() const
{
    return QStringLiteral("timelapse steps");
}

QString FilmStepsOutput::write(FinishedInput&)
{
    return m_steps.finish();
}
