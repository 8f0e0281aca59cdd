#include "Utils.h"

#include <QImage>
#include <QPainter>
#include <QRectF>
#include <QTransform>

#include <algorithm>

namespace Utils {

// The target rectangle is the source's own rectangle at the destination's origin, and the
// source rectangle is widened to match: the whole source lands at scale 1/s, centred.
// A source smaller than the destination is therefore only painted within (0, 0, sw, sh).
void drawImageCentered(const QImage& source, QImage& destination, int margin)
{
    if (source.isNull() || destination.isNull())
        return;
    const double sw = source.width();
    const double sh = source.height();
    const double dw = destination.width();
    const double dh = destination.height();
    const double shrink = std::max(sw / (dw - margin), sh / (dh - margin));

    QTransform transform;
    transform.reset();
    transform.scale(shrink, shrink);
    transform.translate((sw / shrink - dw) * 0.5, (sh / shrink - dh) * 0.5);

    const QRectF sourceRect(0.0, 0.0, sw, sh);
    const QRectF widenedSourceRect = transform.mapRect(sourceRect);

    QPainter painter(&destination);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(sourceRect, source, widenedSourceRect);
}

} // namespace Utils
