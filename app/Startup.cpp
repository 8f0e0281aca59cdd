#include "Startup.h"

#include "MainWindow.h"

#include <QCoreApplication>
#include <QString>

namespace Startup {

void setSettingsIdentity()
{
    QCoreApplication::setOrganizationName(QStringLiteral("tremora"));
    QCoreApplication::setApplicationName(QStringLiteral("tremora"));
}

void queueCommandLineFiles(MainWindow& window, int argc, const char* const* argv)
{
    for (int i = 1; i < argc; ++i)
        window.processFile(argv[i] ? QString::fromUtf8(argv[i]) : QString());
}

void showWithCommandLineFiles(MainWindow& window, int argc, const char* const* argv)
{
    queueCommandLineFiles(window, argc, argv);
    window.show();
}

} // namespace Startup
