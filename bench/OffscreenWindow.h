#pragma once

#include "MainWindow.h"

#include <QByteArray>
#include <QListWidget>
#include <QTemporaryDir>

// What the window benches share: the window offscreen unless a platform is named, its
// remembered geometry kept out of the user's settings, and its list once shown.
namespace OffscreenWindow {

// Before the application object exists; `settings` must outlive the window.
inline void prepare(const QTemporaryDir& settings)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("XDG_CONFIG_HOME", settings.path().toLocal8Bit());
}

// Shows the window; its list of jobs, null if the form has none.
inline QListWidget* show(MainWindow& window)
{
    window.show();
    return window.findChild<QListWidget*>(QStringLiteral("mainList"));
}

} // namespace OffscreenWindow
