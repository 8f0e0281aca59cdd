#include "OutputFile.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSaveFile>

namespace OutputFile {

bool existsOrDangles(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

QString notReplacedError(const QString& path)
{
    return QCoreApplication::translate("MapTool", "File '%1' exists; not replaced (--overwrite replaces it)").arg(path);
}

QString saveError(const QString& path)
{
    return QCoreApplication::translate("MapTool", "Can't save file '%1'").arg(path);
}

QString write(const QString& path, const QByteArray& bytes, bool overwrite)
{
    if (!overwrite && existsOrDangles(path))
        return notReplacedError(path);
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        return saveError(path);
    return {};
}

QString commit(QSaveFile& file, const QString& path, bool overwrite)
{
    if (!overwrite && existsOrDangles(path)) {
        file.cancelWriting();
        return notReplacedError(path);
    }
    if (!file.isOpen() || !file.commit())
        return saveError(path);
    return {};
}

} // namespace OutputFile
