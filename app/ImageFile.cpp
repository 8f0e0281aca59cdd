#include "ImageFile.h"

#include <QFileInfo>
#include <QImage>
#include <QImageWriter>
#include <QSaveFile>
#include <QString>

namespace Utils {

bool saveImage(const QImage& image, const QString& fileName)
{
    // Refused before the target is touched: the writer would open the file first.
    if (image.isNull())
        return false;
    QSaveFile file(fileName);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    // A writer on a device cannot see the file name, so the format is named explicitly, the
    // way a writer given the name itself would deduce it.
    QImageWriter writer(&file, QFileInfo(fileName).suffix().toLower().toLatin1());
    writer.setQuality(-1);
    if (!writer.write(image)) {
        file.cancelWriting();
        return false;
    }
    return file.commit();
}

} // namespace Utils
