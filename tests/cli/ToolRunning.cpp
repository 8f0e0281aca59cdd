#include "ToolRunning.h"

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonDocument>

#include <cstring>

namespace ToolRunning {

Result run(const QStringList& arguments, int timeoutMs, long* peakResidentKb)
{
    QProcess process;
    QTemporaryDir measures;
    const QString peakFile = measures.filePath(QStringLiteral("peak"));
    // GNU time's figure is the tool's own, where the test's rusage would mix in every child.
    if (peakResidentKb)
        process.start(QStringLiteral("/usr/bin/time"),
                      QStringList{"-f", "%M", "-o", peakFile, QStringLiteral(TREMORA_MAP_EXECUTABLE)} + arguments);
    else
        process.start(QStringLiteral(TREMORA_MAP_EXECUTABLE), arguments);
    Result result;
    if (!process.waitForStarted())
        return result;
    result.finished = process.waitForFinished(timeoutMs);
    if (!result.finished) {
        process.kill();
        process.waitForFinished();
    }
    result.crashed = process.exitStatus() == QProcess::CrashExit;
    result.exitCode = process.exitCode();
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    if (peakResidentKb) {
        bool read = false;
        // After "Command exited with non-zero status N" when it did.
        *peakResidentKb = readAll(peakFile).trimmed().split('\n').last().toLong(&read);
        if (!read)
            *peakResidentKb = -1;
    }
    return result;
}

bool makeClip(const QString& path, int frames, const QString& size, const QString& filter)
{
    return TestSupport::runFfmpeg({"-f", "lavfi", "-i", QStringLiteral("testsrc=size=%1:rate=25%2").arg(size, filter),
                                   "-frames:v", QString::number(frames), "-c:v", "ffv1", path});
}

bool makeFarTimestampClip(const QString& path)
{
    return TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=96x64:rate=25", "-frames:v", "60", "-vf",
                                   "setpts='PTS+if(gte(N,30),1e12/TB,0)'", "-fps_mode", "passthrough", "-c:v", "ffv1",
                                   path});
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QJsonObject readJson(const QString& path)
{
    return QJsonDocument::fromJson(readAll(path)).object();
}

QStringList entries(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System, QDir::Name);
}

cv::Mat readBackground(const QString& path)
{
    const QImage image = QImage(path).convertToFormat(QImage::Format_RGB888);
    cv::Mat out(image.height(), image.width(), CV_8UC3);
    for (int y = 0; y < image.height(); ++y)
        std::memcpy(out.ptr(y), image.constScanLine(y), static_cast<size_t>(image.width()) * 3);
    return out;
}

cv::Mat readEvents(const QString& path)
{
    const QImage image(path);
    if (image.format() != QImage::Format_Grayscale16)
        return {};
    cv::Mat counts(image.height(), image.width(), CV_16UC1);
    for (int y = 0; y < image.height(); ++y)
        std::memcpy(counts.ptr(y), image.constScanLine(y), static_cast<size_t>(image.width()) * 2);
    cv::Mat wide;
    counts.convertTo(wide, CV_32SC1);
    return wide;
}

bool saveMask(const QString& path, const cv::Mat& mask)
{
    QImage image(mask.cols, mask.rows, QImage::Format_Grayscale8);
    for (int y = 0; y < mask.rows; ++y)
        std::memcpy(image.scanLine(y), mask.ptr(y), static_cast<size_t>(mask.cols));
    return image.save(path);
}

QString schemaComplaint(const QString& schema, const QString& manifest)
{
    const QString script = QStringLiteral(
        "import json, sys, jsonschema\n"
        "schema = json.load(open(sys.argv[1]))\n"
        "jsonschema.Draft202012Validator.check_schema(schema)\n"
        "errors = list(jsonschema.Draft202012Validator(schema, format_checker=jsonschema.FormatChecker())"
        ".iter_errors(json.load(open(sys.argv[2]))))\n"
        "print('\\n'.join(e.message for e in errors))\n"
        "sys.exit(1 if errors else 0)\n");
    QProcess python;
    python.start(QStringLiteral("/usr/bin/python3"), {"-c", script, schema, manifest});
    if (!python.waitForFinished(60000))
        return QStringLiteral("python did not finish");
    if (python.exitStatus() != QProcess::NormalExit || python.exitCode() != 0)
        return QString::fromLocal8Bit(python.readAllStandardOutput() + python.readAllStandardError());
    return {};
}

Folders::Folders(int toolTimeoutMs)
    : m_out(std::make_unique<QTemporaryDir>())
    , m_toolTimeoutMs(toolTimeoutMs)
{
}

bool Folders::clipsReady() const
{
    return m_clips.isValid();
}

QString Folders::clipsPath() const
{
    return m_clips.path();
}

QString Folders::clip(const QString& name) const
{
    return m_clips.filePath(name);
}

bool Folders::renew()
{
    m_out = std::make_unique<QTemporaryDir>();
    return m_out->isValid();
}

QString Folders::outPath() const
{
    return m_out->path();
}

QString Folders::out(const QString& name) const
{
    return m_out->filePath(name);
}

Result Folders::tool(const QStringList& arguments) const
{
    return toolInto(outPath(), arguments);
}

Result Folders::toolInto(const QString& folder, const QStringList& arguments) const
{
    return run(QStringList{"--quiet", "--output-dir", folder} + arguments, m_toolTimeoutMs);
}

} // namespace ToolRunning
