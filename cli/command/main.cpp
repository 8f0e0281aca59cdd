#include "CancelSignals.h"
#include "MapTool.h"
#include "ProcessMemory.h"

#include <QCoreApplication>
#include <QFile>
#include <QGuiApplication>

#include <cstring>
#include <memory>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

int terminalWidth(int fd)
{
    struct winsize size = {};
    return ::ioctl(fd, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

// Whether `argument` is the option `name`, alone or with its value ("--report=DIR").
bool isOption(const char* argument, const char* name)
{
    const std::size_t length = std::strlen(name);
    return std::strncmp(argument, name, length) == 0 && (argument[length] == '\0' || argument[length] == '=');
}

// Whether the command line asks for a legend, whose text needs the system's fonts: with
// --legend, in a report's cards, or under a film's pictures.
bool wantsLegend(int argc, char** argv)
{
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strcmp(argv[i], "--legend") == 0 || isOption(argv[i], "--report") || isOption(argv[i], "--timelapse"))
            return true;
    }
    return false;
}

} // namespace

// No display is needed: the core application is enough to find the image format plugins.
// Text for legends needs a font database, which comes with a GUI application; the offscreen
// platform gives one without a display.
int main(int argc, char** argv)
{
    ProcessMemory::returnLargeBlocksAtOnce();
    std::unique_ptr<QCoreApplication> application;
    if (wantsLegend(argc, argv)) {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        // The platform's start-up remarks (a missing runtime folder) are not the tool's output.
        const QtMessageHandler previous = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
        application = std::make_unique<QGuiApplication>(argc, argv);
        qInstallMessageHandler(previous);
    } else {
        application = std::make_unique<QCoreApplication>(argc, argv);
    }
    CancelSignals::install();

    QFile out;
    QFile err;
    out.open(STDOUT_FILENO, QIODevice::WriteOnly | QIODevice::Unbuffered);
    err.open(STDERR_FILENO, QIODevice::WriteOnly | QIODevice::Unbuffered);
    const bool errIsTerminal = ::isatty(STDERR_FILENO) == 1;
    const MapTool::Console console{out, err, errIsTerminal, errIsTerminal ? terminalWidth(STDERR_FILENO) : 0};
    return MapTool::run(QCoreApplication::arguments(), console, CancelSignals::flag());
}
