#pragma once

#include "ZoneFile.h"

#include <QString>
#include <QStringList>

#include <limits>
#include <vector>

// What one run of tremora-map was asked to do, as read from its command line.
struct MapToolOptions {
    QStringList videos;   // in the order given
    QString outputDir;    // empty: each map goes beside its video
    QString format = QStringLiteral("png");
    int jobs = 2;         // files analysed at once, already resolved (0 on the command line = cores)
    bool counts = false;
    bool background = false;
    bool blur = true;
    bool overwrite = false;
    bool quiet = false;
    // --data: the exact counts, the background, the activity and a manifest besides the map.
    bool data = false;
    QString maskPath;     // empty: every pixel is analysed
    // --report DIR: an HTML page of every input in DIR; implies `data`. Empty: no report.
    QString reportDir;
    // The time window, in seconds from each video's start.
    double start = 0.0;
    double end = std::numeric_limits<double>::infinity();
    bool hasStart = false;
    bool hasEnd = false;
    // --scale: the events that reach the top of the colour scale. Given, the maps are drawn
    // from the exact counts; not given, from the window's wrapping count, as the window does.
    bool scaleGiven = false;
    bool scaleAuto = false;  // the 99th percentile of each output's non-zero counts
    double scale = 8.5;      // MotionMap::kDefaultScale; meaningful unless scaleAuto
    // --combine NAME: every input adds up into one map NAME.<format>; inputs may then also be
    // manifests written by --data. Empty: one map per input.
    QString combineName;
    // --legend: NAME.legend.png, the map with a strip that explains it.
    bool legend = false;
    // --slice: seconds of video per map, NAME.slice-HHhMMmSSs.<format> instead of one map
    // per video. 0: one map per video.
    double sliceSeconds = 0.0;
    // --steady-light: a change of light is not motion (each pair's lower median difference
    // is taken out), and a pair in which more than `sceneChangeShare` of the analysed pixels
    // still move is a scene change, which starts no event. --scene-change F sets the share
    // and implies it.
    bool steadyLight = false;
    double sceneChangeShare = 0.5;
    // --zones FILE: named parts of the picture, each counted on its own; implies `data`.
    // Empty: none. The zones are read from the file by MapTool, before the run.
    QString zonesPath;
    std::vector<Zone> zones;
    // --timelapse: seconds of the time line per picture of NAME.timelapse.mp4; 0: no film.
    double timelapseSeconds = 0.0;
    // --timelapse-window: each picture shows only the events of this many seconds before its
    // time, a multiple of timelapseSeconds; 0: every event before it.
    double timelapseWindowSeconds = 0.0;
};

// The outcome of reading a command line: run, or print one of the two texts, or refuse.
struct ParsedCommandLine {
    enum class Action { Run, ShowHelp, ShowVersion, UsageError };

    Action action = Action::UsageError;
    MapToolOptions options;  // meaningful for Run
    QString error;           // meaningful for UsageError: one line, no program name
};

namespace MapToolCommandLine {

// Files at once when the command line does not say.
constexpr int kDefaultJobs = 2;

// Reads `arguments` (the program name first, then options and videos, "--" ending the
// options). An unknown option or a missing value is an error; after that --help, then
// --version, win over the checks of the values and over a missing video, so that both work
// alone. `cores` is what --jobs 0 stands for. Reentrant.
ParsedCommandLine parse(const QStringList& arguments, int cores);

// The --help text: synopsis, options, naming of the files, exit status, examples.
QString helpText();

// "tremora-map 1.0.8".
QString versionText();

// A time as --start and --end take it: seconds ("90", "90.5") or [hh:]mm:ss[.fff] ("1:30",
// "01:01:30.250"), minutes and seconds below 60 where a larger unit comes before them.
// False for anything else, and for negative or non-finite values. Reentrant.
bool readTime(const QString& text, double* seconds);

// A --scale value: "auto" (sets `automatic`), or a finite number of events above 0. False
// for anything else. Reentrant.
bool readScale(const QString& text, double* scale, bool* automatic);

// A --scene-change share: a finite number above 0 and at most 1 ("0.5", "1", ".25"). False
// for anything else. Reentrant.
bool readShare(const QString& text, double* share);

// A --slice length: a number followed by s, m or h ("90s", "10m", "1.5h"); a plain number is
// seconds. False for anything else, and for lengths that are not a whole number of seconds
// of at least 1. Reentrant.
bool readDuration(const QString& text, double* seconds);

} // namespace MapToolCommandLine
