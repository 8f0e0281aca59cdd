#include "Film.h"

#include "FfmpegMutex.h"
#include "FilmSteps.h"
#include "Legend.h"
#include "MotionMap.h"
#include "MpegWriter.h"
#include "OutputFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QMutexLocker>
#include <QTemporaryFile>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <vector>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

// x264's default quality: a map's luma comes back well above 35 dB, at a size a reader keeps
// beside the map. The fast preset encodes a 1080p picture several times quicker than the
// default at about the same size, which keeps the film a small part of a run's time.
constexpr int kConstantRateFactor = 23;
const char* const kPreset = "veryfast";

// The steps of every pass in step order, read side by side.
class StepStreams {
public:
    explicit StepStreams(const QStringList& files)
    {
        for (const QString& file : files) {
            m_readers.emplace_back(file);
            m_pending.push_back(m_readers.back().next());
        }
    }

    // The earliest step not yet applied; INT_MAX when none is left.
    int nextStep() const
    {
        int step = std::numeric_limits<int>::max();
        for (size_t i = 0; i < m_readers.size(); ++i) {
            if (m_pending[i])
                step = std::min(step, m_readers[i].step().step);
        }
        return step;
    }

    // Applies to `sum` (`sign` 1 adds, -1 subtracts) every step up to `step`; `lastPairTime`
    // receives the latest time among them. False when a file cannot be read.
    bool applyUpTo(int step, cv::Mat& sum, int sign, double* lastPairTime)
    {
        for (size_t i = 0; i < m_readers.size(); ++i) {
            FilmSteps::Reader& reader = m_readers[i];
            while (m_pending[i] && reader.step().step <= step) {
                if (!reader.addTo(sum, sign))
                    return false;
                if (lastPairTime)
                    *lastPairTime = std::max(*lastPairTime, reader.step().lastPairTime);
                m_pending[i] = reader.next();
            }
        }
        return error().isEmpty();
    }

    QString error() const
    {
        for (const FilmSteps::Reader& reader : m_readers) {
            if (!reader.error().isEmpty())
                return reader.error();
        }
        return {};
    }

private:
    std::vector<FilmSteps::Reader> m_readers;
    std::vector<bool> m_pending;
};

// A film being encoded under a temporary name beside its path.
class Encoder {
public:
    explicit Encoder(const Film::Settings& settings)
        : m_settings(settings)
    {
    }

    ~Encoder()
    {
        const QMutexLocker lock(&ffmpegMutex);
        m_writer.close();
    }

    QString add(const QImage& picture)
    {
        if (!m_writer.isOpen()) {
            const QString error = open(picture.size());
            if (!error.isEmpty())
                return error;
        }
        // The encoder's answer for one picture is no error: it may hold pictures back.
        m_writer.writeRgb24(picture.constBits(), picture.bytesPerLine(), m_pictures++);
        return {};
    }

    // Drains the encoder, closes the file and renames it into place.
    QString finish()
    {
        bool written = m_writer.drain();
        {
            const QMutexLocker lock(&ffmpegMutex);
            m_writer.close();
        }
        written = written && m_temporary.size() > 0;
        if (!written)
            return tr("Can't write the time-lapse film '%1'").arg(m_settings.path);
        if (!m_settings.overwrite && OutputFile::existsOrDangles(m_settings.path))
            return OutputFile::notReplacedError(m_settings.path);
        if (std::rename(QFile::encodeName(m_temporary.fileName()).constData(),
                        QFile::encodeName(m_settings.path).constData()) != 0)
            return tr("Can't write the time-lapse film '%1'").arg(m_settings.path);
        m_temporary.setAutoRemove(false);
        // Readable by others, as the run's other files are; the temporary name was private.
        QFile::setPermissions(m_settings.path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser
                                                   | QFileDevice::WriteUser | QFileDevice::ReadGroup
                                                   | QFileDevice::ReadOther);
        return {};
    }

private:
    QString open(const QSize& size)
    {
        const QFileInfo target(m_settings.path);
        m_temporary.setFileTemplate(target.dir().filePath(QStringLiteral(".%1.XXXXXX").arg(target.fileName())));
        if (!m_temporary.open())
            return tr("Can't write the time-lapse film '%1'").arg(m_settings.path);
        MpegWriterOptions options;
        options.container = "mp4";
        options.encoder = "libx264";
        options.constantRateFactor = kConstantRateFactor;
        options.preset = kPreset;
        options.indexFirst = true;
        options.describe = false;
        const QMutexLocker lock(&ffmpegMutex);
        if (!m_writer.open(QFile::encodeName(m_temporary.fileName()).constData(), 0, size.width(), size.height(),
                           Film::kPicturesPerSecond, options))
            return tr("Can't write the time-lapse film '%1'").arg(m_settings.path);
        return {};
    }

    const Film::Settings& m_settings;
    QTemporaryFile m_temporary;
    MpegWriter m_writer;
    std::int64_t m_pictures = 0;
};

bool canceled(const Film::Settings& settings)
{
    return settings.cancel && settings.cancel->load(std::memory_order_relaxed) != 0;
}

} // namespace

namespace Film {

QString write(const Settings& settings, const QStringList& stepFiles, const cv::Mat& background)
{
    StepStreams added(stepFiles);
    // A moving window takes each step out again as many steps after it as the window spans.
    const int windowSteps = settings.windowSeconds > 0.0
        ? static_cast<int>(std::lround(settings.windowSeconds / settings.stepSeconds))
        : 0;
    StepStreams removed(windowSteps > 0 ? stepFiles : QStringList());
    const QString readError = added.error();
    if (!readError.isEmpty())
        return readError;
    int step = added.nextStep();
    // A video without a pair has no event: its film is the one picture of its start.
    if (step == std::numeric_limits<int>::max())
        step = 0;
    Encoder encoder(settings);
    cv::Mat sum(background.size(), CV_32SC1, cv::Scalar(0));
    Legend::CaptionedPictures pictures(QSize(background.cols, background.rows));
    if (pictures.picture().isNull())
        return tr("Can't write the time-lapse film '%1'").arg(settings.path);
    bool drawn = false;
    double lastPairTime = 0.0;
    for (;; ++step) {
        if (canceled(settings))
            return tr("The time-lapse film '%1' was not finished: the run was interrupted").arg(settings.path);
        // A picture's map only changes when its events do; its time changes every step.
        const bool changed = !drawn || added.nextStep() <= step
            || (windowSteps > 0 && removed.nextStep() <= step - windowSteps);
        if (!added.applyUpTo(step, sum, 1, &lastPairTime)
            || (windowSteps > 0 && !removed.applyUpTo(step - windowSteps, sum, -1, nullptr)))
            return added.error().isEmpty() ? removed.error() : added.error();
        if (changed && !MotionMap::renderInto(pictures.picture(), sum, background, settings.scale))
            return tr("Can't write the time-lapse film '%1'").arg(settings.path);
        drawn = true;
        const bool last = added.nextStep() == std::numeric_limits<int>::max();
        const double reached = last ? lastPairTime : (step + 1.0) * settings.stepSeconds;
        pictures.caption(settings.name, Legend::timePoint(settings.lineClock, reached));
        const QString error = encoder.add(pictures.picture());
        if (!error.isEmpty())
            return error;
        if (last)
            break;
    }
    return encoder.finish();
}

} // namespace Film
