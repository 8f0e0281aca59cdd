#pragma once

// The application's version, shown in the window title and by the command-line tool.
struct Version {
    static const char* const version;
};
