#include "TestSupport.h"

#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QtEndian>

#include <sys/resource.h>
#include <zlib.h>

#include <vector>

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

QByteArray bigEndian32(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

QByteArray pngChunk(const char* type, const QByteArray& data)
{
    const QByteArray typed = QByteArray(type, 4) + data;
    const auto crc = static_cast<quint32>(
        crc32(0, reinterpret_cast<const Bytef*>(typed.constData()), static_cast<uInt>(typed.size())));
    return bigEndian32(static_cast<quint32>(data.size())) + typed + bigEndian32(crc);
}

// The zlib stream of `rows` rows of `rowBytes` zero bytes, each after its filter byte 0 (none),
// deflated a row at a time so that the picture is never held whole.
QByteArray deflatedBlackRows(int rows, int rowBytes)
{
    z_stream stream{};
    if (deflateInit2(&stream, 9, Z_DEFLATED, 15, 9, Z_RLE) != Z_OK)
        return {};
    std::vector<Bytef> row(static_cast<size_t>(rowBytes) + 1, 0);
    std::vector<Bytef> out(1 << 16);
    QByteArray deflated;
    int status = Z_OK;
    for (int y = 0; y < rows; ++y) {
        stream.next_in = row.data();
        stream.avail_in = static_cast<uInt>(row.size());
        const int flush = y == rows - 1 ? Z_FINISH : Z_NO_FLUSH;
        do {
            stream.next_out = out.data();
            stream.avail_out = static_cast<uInt>(out.size());
            status = deflate(&stream, flush);
            deflated.append(reinterpret_cast<const char*>(out.data()),
                            static_cast<int>(out.size() - stream.avail_out));
        } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    return status == Z_STREAM_END ? deflated : QByteArray();
}

} // namespace

QByteArray blackGreyPng(int width, int height, int bitDepth)
{
    const QByteArray rows = deflatedBlackRows(height, width * (bitDepth / 8));
    if (rows.isEmpty())
        return {};
    // Width, height, bit depth, colour type 0 (grey), deflate, adaptive filters, no interlace.
    const QByteArray header = bigEndian32(static_cast<quint32>(width)) + bigEndian32(static_cast<quint32>(height))
                              + static_cast<char>(bitDepth) + QByteArray(4, '\0');
    return QByteArray("\x89PNG\r\n\x1a\n", 8) + pngChunk("IHDR", header) + pngChunk("IDAT", rows)
           + pngChunk("IEND", {});
}

long peakResidentKilobytes()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

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
