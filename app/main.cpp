#include "MainWindow.h"
#include "ProcessMemory.h"
#include "Startup.h"
#include "TerminationSignals.h"

#include <QApplication>

int main(int argc, char** argv)
{
    ProcessMemory::returnLargeBlocksAtOnce();
    QApplication application(argc, argv);
    Startup::setSettingsIdentity();

    // Declared before the window so that it outlives it: a signal during the window's
    // destruction then still finds a valid socket to write to.
    TerminationSignals terminationSignals;
    QObject::connect(&terminationSignals, &TerminationSignals::received,
                     &application, &QCoreApplication::quit);

    MainWindow window;
    Startup::showWithCommandLineFiles(window, argc, argv);
    return application.exec();
}
