#pragma once

class MainWindow;

// The steps of the program's start that are worth testing on their own. GUI thread, after
// the application object exists.
namespace Startup {

// Every settings object of the program is default-constructed and so stored per user under
// this identity. Call before the first QSettings is made.
void setSettingsIdentity();

// Hands argv[1] .. argv[argc - 1], decoded as UTF-8, to window.processFile in order. A null
// argument becomes an empty path; whether a path is usable is the window's business.
void queueCommandLineFiles(MainWindow& window, int argc, const char* const* argv);

// Queues the command-line files as above, then shows the window: it appears with their rows
// already in its list.
void showWithCommandLineFiles(MainWindow& window, int argc, const char* const* argv);

} // namespace Startup
