#include "Utils.h"

#include <QRect>
#include <QSettings>
#include <QString>
#include <QWidget>

namespace {

// Stands for "nothing stored": no real window has this geometry, and a stored value equal
// to it is treated the same as a missing one.
const QRect kNoGeometry(-9999, -9999, 9999, 9999);

void restoreGeometry(QWidget* widget, QSettings& settings, const QString& geometryKey,
                     const QString& maximizedKey)
{
    if (settings.value(maximizedKey, false).toBool()) {
        widget->showMaximized();
        return;
    }
    const QRect geometry = settings.value(geometryKey, kNoGeometry).toRect();
    // No check against the attached screens: a rectangle from a screen that is gone is
    // applied as it is, and the window system decides what to make of it.
    if (geometry != kNoGeometry)
        widget->setGeometry(geometry);
}

void saveGeometry(const QWidget* widget, QSettings& settings, const QString& geometryKey,
                  const QString& maximizedKey)
{
    settings.setValue(maximizedKey, widget->isMaximized());
    settings.setValue(geometryKey, widget->geometry());
}

} // namespace

namespace Utils {

void updateWindowGeometry(QWidget* widget, bool restore, const QString& name)
{
    QSettings settings;
    const QString geometryKey = QStringLiteral("geometry_%1").arg(name);
    const QString maximizedKey = QStringLiteral("is_maximized_%1").arg(name);
    if (restore)
        restoreGeometry(widget, settings, geometryKey, maximizedKey);
    else
        saveGeometry(widget, settings, geometryKey, maximizedKey);
}

} // namespace Utils
