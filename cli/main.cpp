#include "CancelSignals.h"
#include "MapTool.h"
#include "ProcessMemory.h"

#include <QCoreApplication>
#include <QFile>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

int terminalWidth(int fd)
{
    struct winsize size = {};
    return ::ioctl(fd, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

} // namespace

// No display is needed: the core application is enough to find the image format plugins.
int main(int argc, char** argv)
{
    ProcessMemory::returnLargeBlocksAtOnce();
    QCoreApplication application(argc, argv);
    CancelSignals::install();

    QFile out;
    QFile err;
    out.open(STDOUT_FILENO, QIODevice::WriteOnly | QIODevice::Unbuffered);
    err.open(STDERR_FILENO, QIODevice::WriteOnly | QIODevice::Unbuffered);
    const bool errIsTerminal = ::isatty(STDERR_FILENO) == 1;
    const MapTool::Console console{out, err, errIsTerminal, errIsTerminal ? terminalWidth(STDERR_FILENO) : 0};
    return MapTool::run(QCoreApplication::arguments(), console, CancelSignals::flag());
}
