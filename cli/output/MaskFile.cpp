#include "MaskFile.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QImage>
#include <QImageReader>

#include <opencv2/core.hpp>

#include <cstring>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

constexpr int kLightFrom = 128;

} // namespace

namespace MaskFile {

cv::Mat load(const QString& path, QString* error)
{
    if (!QFileInfo(path).isFile()) {
        *error = tr("Can't read mask '%1': no such file.").arg(path);
        return {};
    }
    QImageReader reader(path);
    // From the header alone: a few compressed bytes can declare a picture of gigabytes.
    const QSize declared = reader.size();
    if (declared.width() > kLargestSide || declared.height() > kLargestSide) {
        *error = tr("Mask '%1' is %2x%3: larger than %4 pixels on a side.")
                     .arg(path, QString::number(declared.width()), QString::number(declared.height()),
                          QString::number(kLargestSide));
        return {};
    }
    const QImage picture = reader.read();
    if (picture.isNull()) {
        *error = tr("Can't read mask '%1': %2.").arg(path, reader.errorString());
        return {};
    }
    const QImage grey = picture.convertToFormat(QImage::Format_Grayscale8);
    cv::Mat luma(grey.height(), grey.width(), CV_8UC1);
    for (int y = 0; y < grey.height(); ++y)
        std::memcpy(luma.ptr(y), grey.constScanLine(y), static_cast<size_t>(grey.width()));
    cv::Mat mask = luma >= kLightFrom;
    if (cv::countNonZero(mask) == 0) {
        *error = tr("Mask '%1' has no light pixel: nothing would be analysed.").arg(path);
        return {};
    }
    return mask;
}

} // namespace MaskFile
