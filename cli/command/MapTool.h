#pragma once

#include <QStringList>

#include <atomic>

class QIODevice;

// The whole of tremora-map behind its main(): reads the command line, prints help, version
// or a usage error, creates the output folder, plans the files and runs the analyses.
namespace MapTool {

struct Console {
    QIODevice& out;      // --help and --version
    QIODevice& err;      // progress, per-file lines and errors
    bool errIsTerminal;  // progress redrawn in place rather than line by line
    int terminalWidth;   // columns of that terminal, 0 when unknown
};

// `arguments` as the program received them, the program name first; `cancel` as in MapRun.
// Returns the exit status. Main thread; the application object must exist.
int run(const QStringList& arguments, Console console, const std::atomic<int>& cancel);

} // namespace MapTool
