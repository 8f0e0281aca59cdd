#include "ProgressOutput.h"

#include <QCoreApplication>
#include <QIODevice>
#include <QStringList>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

QStringList blockLines(const ProgressOutput::Snapshot& snapshot)
{
    QStringList lines;
    for (const ProgressOutput::RunningFile& file : snapshot.running)
        lines << QStringLiteral("%1% %2").arg(file.percent, 4).arg(file.name);
    lines << tr("Frames per second: %1").arg(qRound(snapshot.framesPerSecond)) + QStringLiteral("  ")
                 + tr("(%1 of %2 files finished)").arg(snapshot.finishedFiles).arg(snapshot.totalFiles);
    return lines;
}

} // namespace

qint64 progressPercent(qint64 position, qint64 fileSize)
{
    return fileSize > 0 ? position * 100 / fileSize : 0;
}

ProgressOutput::ProgressOutput(QIODevice& device, Style style, int width)
    : m_device(device)
    , m_style(style)
    , m_width(width)
{
}

void ProgressOutput::started(const QString& video)
{
    if (m_style == Style::Lines)
        printLine(tr("%1: started").arg(video));
}

void ProgressOutput::done(const QString& video, const QString& mapPath)
{
    if (m_style != Style::Quiet)
        printLine(tr("%1: done -> %2").arg(video, mapPath));
}

void ProgressOutput::canceled(const QString& video)
{
    if (m_style != Style::Quiet)
        printLine(tr("%1: canceled").arg(video));
}

void ProgressOutput::error(const QString& text)
{
    printLine(text);
}

void ProgressOutput::show(const Snapshot& snapshot, qint64 nowMs)
{
    if (m_style != Style::Live)
        return;
    if (m_blockLines > 0 && nowMs - m_lastDrawMs < kRedrawIntervalMs)
        return;
    eraseBlock();
    const QStringList lines = blockLines(snapshot);
    QString text;
    for (const QString& line : lines)
        text += fitted(line) + QLatin1Char('\n');
    m_device.write(text.toLocal8Bit());
    m_blockLines = lines.size();
    m_lastDrawMs = nowMs;
}

void ProgressOutput::finish()
{
    eraseBlock();
}

// Lines land above the block: the block goes, the line is written, and the next show()
// draws the block again below it.
void ProgressOutput::printLine(const QString& line)
{
    eraseBlock();
    m_device.write((line + QLatin1Char('\n')).toLocal8Bit());
}

void ProgressOutput::eraseBlock()
{
    if (m_blockLines == 0)
        return;
    // Up to the block's first line, then clear from there to the end of the screen.
    m_device.write(QStringLiteral("\x1b[%1A\r\x1b[J").arg(m_blockLines).toLatin1());
    m_blockLines = 0;
}

// A line as wide as the terminal would move the cursor to the next line by itself.
QString ProgressOutput::fitted(const QString& line) const
{
    return m_width > 1 && line.size() >= m_width ? line.left(m_width - 1) : line;
}
