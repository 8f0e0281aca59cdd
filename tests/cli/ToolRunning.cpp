#include "ToolRunning.h"

#include "TestSupport.h"

#include <QFile>

namespace ToolRunning {

Result run(const QStringList& arguments, int timeoutMs)
{
    QProcess process;
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
    return result;
}

bool makeClip(const QString& path, int frames, const QString& size, const QString& filter)
{
    return TestSupport::runFfmpeg({"-f", "lavfi", "-i", QStringLiteral("testsrc=size=%1:rate=25%2").arg(size, filter),
                                   "-frames:v", QString::number(frames), "-c:v", "ffv1", path});
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace ToolRunning
