#include "TestSupport.h"

#include <QFile>
#include <QProcess>
#include <QSettings>

namespace TestSupport {
namespace {

constexpr int kFfmpegTimeoutMs = 180000;

QStringList baseArguments()
{
    return {"-hide_banner", "-loglevel", "error", "-nostdin", "-y"};
}

bool finish(QProcess& process, QString* error)
{
    const bool finished = process.waitForFinished(kFfmpegTimeoutMs);
    const bool ok = finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (!ok && error)
        *error += QString::fromLocal8Bit(process.readAllStandardError());
    if (!finished)
        process.kill();
    return ok;
}

} // namespace

bool runFfmpeg(const QStringList& args, QString* error)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start("ffmpeg", baseArguments() + args);
    if (!process.waitForStarted()) {
        if (error)
            *error += QStringLiteral("ffmpeg did not start");
        return false;
    }
    return finish(process, error);
}

bool writeRawClip(const QString& path, int width, int height, const std::vector<QByteArray>& frames,
                  const QStringList& outputArgs, const QString& inputPixelFormat, int fps)
{
    QStringList args = baseArguments();
    args << "-f" << "rawvideo" << "-pix_fmt" << inputPixelFormat
         << "-s" << QStringLiteral("%1x%2").arg(width).arg(height)
         << "-r" << QString::number(fps) << "-i" << "-";
    args += outputArgs;
    args << path;

    QProcess process;
    process.start("ffmpeg", args);
    if (!process.waitForStarted())
        return false;
    for (const QByteArray& frame : frames) {
        process.write(frame);
        while (process.bytesToWrite() > 0)
            process.waitForBytesWritten(kFfmpegTimeoutMs);
    }
    process.closeWriteChannel();
    return finish(process, nullptr);
}

QByteArray grayFrame(int width, int height, unsigned char value)
{
    return QByteArray(width * height, static_cast<char>(value));
}

ScopedSettings::ScopedSettings()
{
    for (QSettings::Format format : {QSettings::NativeFormat, QSettings::IniFormat})
        for (QSettings::Scope scope : {QSettings::UserScope, QSettings::SystemScope})
            QSettings::setPath(format, scope, m_dir.path());
}

bool catchesSignals(qint64 pid, const std::vector<int>& signalNumbers)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return false;
    qulonglong wanted = 0;
    for (const int signalNumber : signalNumbers)
        wanted |= 1ull << (signalNumber - 1);
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (!line.startsWith("SigCgt:"))
            continue;
        bool ok = false;
        const qulonglong caught = line.mid(7).trimmed().toULongLong(&ok, 16);
        return ok && (caught & wanted) == wanted;
    }
    return false;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

} // namespace TestSupport
