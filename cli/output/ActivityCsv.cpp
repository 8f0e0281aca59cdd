#include "ActivityCsv.h"

#include "OutputFile.h"

ActivityCsv::ActivityCsv(const QString& path, bool sceneChanges)
    : m_path(path)
    , m_file(path)
    , m_sceneChanges(sceneChanges)
{
    // A table that cannot be started says so in commit().
    if (m_file.open(QIODevice::WriteOnly))
        m_file.write(sceneChanges ? kHeaderWithSceneChanges : kHeader);
}

void ActivityCsv::add(const MotionPassHooks::PairRecord& record)
{
    // Microseconds: finer than any frame interval. QByteArray's numbers ignore the locale, so
    // the decimal point is a point on every machine.
    QByteArray row = QByteArray::number(record.pair);
    row += ',';
    row += QByteArray::number(record.time, 'f', 6);
    row += ',';
    row += QByteArray::number(static_cast<qint64>(record.movingPixels));
    row += ',';
    row += QByteArray::number(static_cast<qint64>(record.newEvents));
    if (m_sceneChanges)
        row += record.sceneChange ? ",1" : ",0";
    row += '\n';
    if (m_file.isOpen())
        m_file.write(row);
}

QString ActivityCsv::commit(bool overwrite)
{
    return OutputFile::commit(m_file, m_path, overwrite);
}
