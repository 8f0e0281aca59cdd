#include "MapToolOptions.h"

#include "Manifest.h"

#include "Version.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <cmath>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("MapTool", text);
}

const QStringList kFormats = {QStringLiteral("png"), QStringLiteral("jpg"), QStringLiteral("bmp")};

struct Options {
    QCommandLineOption outputDir{{"o", "output-dir"}, {}, "DIR"};
    QCommandLineOption format{{"f", "format"}, {}, "FORMAT"};
    QCommandLineOption jobs{{"j", "jobs"}, {}, "N"};
    QCommandLineOption counts{"counts"};
    QCommandLineOption background{"background"};
    QCommandLineOption noBlur{"no-blur"};
    QCommandLineOption overwrite{"overwrite"};
    QCommandLineOption quiet{{"q", "quiet"}};
    QCommandLineOption data{"data"};
    QCommandLineOption mask{"mask", {}, "FILE"};
    QCommandLineOption report{"report", {}, "DIR"};
    QCommandLineOption start{"start", {}, "T"};
    QCommandLineOption end{"end", {}, "T"};
    QCommandLineOption scale{"scale", {}, "N"};
    QCommandLineOption combine{"combine", {}, "NAME"};
    QCommandLineOption legend{"legend"};
    QCommandLineOption slice{"slice", {}, "DURATION"};
    QCommandLineOption steadyLight{"steady-light"};
    QCommandLineOption sceneChange{"scene-change", {}, "F"};
    QCommandLineOption zones{"zones", {}, "FILE"};
    QCommandLineOption timelapse{"timelapse", {}, "STEP"};
    QCommandLineOption timelapseWindow{"timelapse-window", {}, "W"};
    QCommandLineOption help{{"h", "help"}};
    QCommandLineOption version{{"v", "version"}};

    void addTo(QCommandLineParser& parser) const
    {
        parser.addOptions({outputDir, format, jobs, counts, background, noBlur, overwrite, quiet, data, mask, report, start,
                           end, scale, combine, legend, slice, steadyLight, sceneChange, zones, timelapse,
                           timelapseWindow, help, version});
    }
};

ParsedCommandLine usageError(const QString& message)
{
    ParsedCommandLine result;
    result.action = ParsedCommandLine::Action::UsageError;
    result.error = message;
    return result;
}

// A count of files at once: a plain non-negative decimal number; 0 stands for `cores`.
bool readJobs(const QString& text, int cores, int* jobs)
{
    bool ok = false;
    const int value = text.toInt(&ok, 10);
    if (!ok || value < 0 || text.startsWith(QLatin1Char('+')))
        return false;
    *jobs = value == 0 ? qMax(cores, 1) : value;
    return true;
}

// Reads the value of --start or --end into `seconds`; the error, empty when it reads.
QString readTimeOption(const QCommandLineParser& parser, const QCommandLineOption& option, const QString& name,
                       double* seconds)
{
    const QString text = parser.value(option);
    if (MapToolCommandLine::readTime(text, seconds))
        return {};
    return tr("Bad time '%1' for --%2: use seconds (90.5) or [hh:]mm:ss[.fff] (1:30.5).").arg(text, name);
}

// The time window and the mask; the error, empty when they read.
QString readWindowAndMask(const QCommandLineParser& parser, const Options& o, MapToolOptions& options)
{
    options.hasStart = parser.isSet(o.start);
    options.hasEnd = parser.isSet(o.end);
    if (options.hasStart) {
        const QString error = readTimeOption(parser, o.start, QStringLiteral("start"), &options.start);
        if (!error.isEmpty())
            return error;
    }
    if (options.hasEnd) {
        const QString error = readTimeOption(parser, o.end, QStringLiteral("end"), &options.end);
        if (!error.isEmpty())
            return error;
    }
    if (options.start > options.end)
        return tr("--start %1 is after --end %2.").arg(parser.value(o.start), parser.value(o.end));
    if (parser.isSet(o.mask)) {
        options.maskPath = parser.value(o.mask);
        if (options.maskPath.isEmpty())
            return tr("The mask file name must not be empty.");
    }
    return {};
}

// The name of a combined map: a file name in the output folder, not a path. The error,
// empty when it reads.
QString readCombine(const QCommandLineParser& parser, const Options& o, MapToolOptions& options)
{
    if (!parser.isSet(o.combine))
        return {};
    const QString name = parser.value(o.combine);
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String("..")
        || name.contains(QLatin1Char('/')) || name.contains(QLatin1Char('\\')))
        return tr("Bad name '%1' for --combine: a file name without a folder (--output-dir sets the folder).")
            .arg(name);
    if (options.counts)
        return tr("--counts does not apply to --combine: the combined counts are in NAME.events.png (--data).");
    options.combineName = name;
    return {};
}

QString readSlice(const QCommandLineParser& parser, const Options& o, MapToolOptions& options)
{
    if (!parser.isSet(o.slice))
        return {};
    if (!MapToolCommandLine::readDuration(parser.value(o.slice), &options.sliceSeconds))
        return tr("Bad duration '%1' for --slice: use whole seconds, at least 1, such as 90s, 10m or 1h.")
            .arg(parser.value(o.slice));
    return {};
}

// The film's step and its moving window; the error, empty when they read.
QString readTimelapse(const QCommandLineParser& parser, const Options& o, MapToolOptions& options)
{
    if (parser.isSet(o.timelapse)
        && !MapToolCommandLine::readDuration(parser.value(o.timelapse), &options.timelapseSeconds))
        return tr("Bad step '%1' for --timelapse: use whole seconds, at least 1, such as 10s, 1m or 1h.")
            .arg(parser.value(o.timelapse));
    if (!parser.isSet(o.timelapseWindow))
        return {};
    if (!parser.isSet(o.timelapse))
        return tr("--timelapse-window needs --timelapse STEP: the window is a number of the film's steps.");
    if (!MapToolCommandLine::readDuration(parser.value(o.timelapseWindow), &options.timelapseWindowSeconds))
        return tr("Bad window '%1' for --timelapse-window: use whole seconds, at least 1, such as 10m or 1h.")
            .arg(parser.value(o.timelapseWindow));
    if (std::fmod(options.timelapseWindowSeconds, options.timelapseSeconds) != 0.0)
        return tr("--timelapse-window %1 is not a multiple of --timelapse %2.")
            .arg(parser.value(o.timelapseWindow), parser.value(o.timelapse));
    return {};
}

// A path as two spellings of one folder share it: absolute, clean, links resolved as far as
// the folders exist.
QString folderIdentity(const QString& path)
{
    const QString clean = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    const QString canonical = QFileInfo(clean).canonicalFilePath();
    if (!canonical.isEmpty())
        return canonical;
    const QFileInfo info(clean);
    const QString parent = QFileInfo(info.absolutePath()).canonicalFilePath();
    return parent.isEmpty() ? clean : QDir(parent).filePath(info.fileName());
}

// A report takes its folder's place when it is done: the maps' folder, or one inside the
// report's, would be replaced with everything written there.
QString checkReportBesideMaps(const MapToolOptions& options)
{
    if (options.reportDir.isEmpty() || options.outputDir.isEmpty())
        return {};
    const QString report = folderIdentity(options.reportDir);
    const QString maps = folderIdentity(options.outputDir);
    if (maps != report && !maps.startsWith(report + QLatin1Char('/')))
        return {};
    return tr("--report '%1' would replace the folder the maps go to ('%2'); give the report a folder of its own.")
        .arg(options.reportDir, options.outputDir);
}

// A manifest holds a video's counts as a whole, not when they happened, so it cannot be cut
// into slices nor filmed.
QString checkTimedInputs(const MapToolOptions& options)
{
    const char* const option = options.sliceSeconds > 0.0 ? "--slice" : options.timelapseSeconds > 0.0 ? "--timelapse" : nullptr;
    if (!option)
        return {};
    for (const QString& input : options.videos) {
        if (Manifest::namesManifest(input))
            return tr("%1 needs the videos: '%2' is a manifest, whose counts do not say when they happened.")
                .arg(QLatin1String(option), input);
    }
    return {};
}

ParsedCommandLine readValues(const QCommandLineParser& parser, const Options& o, int cores)
{
    ParsedCommandLine result;
    result.action = ParsedCommandLine::Action::Run;
    MapToolOptions& options = result.options;
    if (parser.isSet(o.format)) {
        options.format = parser.value(o.format);
        if (!kFormats.contains(options.format))
            return usageError(tr("Unknown format '%1': use png, jpg or bmp.").arg(options.format));
    }
    if (parser.isSet(o.jobs) && !readJobs(parser.value(o.jobs), cores, &options.jobs))
        return usageError(tr("Bad number of jobs '%1': use 0 or more.").arg(parser.value(o.jobs)));
    if (parser.isSet(o.outputDir)) {
        options.outputDir = parser.value(o.outputDir);
        if (options.outputDir.isEmpty())
            return usageError(tr("The output folder must not be empty."));
    }
    options.counts = parser.isSet(o.counts);
    options.background = parser.isSet(o.background);
    options.blur = !parser.isSet(o.noBlur);
    options.overwrite = parser.isSet(o.overwrite);
    options.quiet = parser.isSet(o.quiet);
    if (parser.isSet(o.report)) {
        options.reportDir = parser.value(o.report);
        if (options.reportDir.isEmpty())
            return usageError(tr("The report folder must not be empty."));
    }
    if (parser.isSet(o.zones)) {
        options.zonesPath = parser.value(o.zones);
        if (options.zonesPath.isEmpty())
            return usageError(tr("The zone file name must not be empty."));
    }
    // The report's cards are drawn from the manifest, its chart from the activity; the zones'
    // figures go to the manifest and a table beside the activity.
    options.data = parser.isSet(o.data) || !options.reportDir.isEmpty() || !options.zonesPath.isEmpty();
    options.legend = parser.isSet(o.legend);
    const QString windowError = readWindowAndMask(parser, o, options);
    if (!windowError.isEmpty())
        return usageError(windowError);
    options.scaleGiven = parser.isSet(o.scale);
    if (options.scaleGiven
        && !MapToolCommandLine::readScale(parser.value(o.scale), &options.scale, &options.scaleAuto))
        return usageError(tr("Bad scale '%1' for --scale: use a number of events above 0, or auto.")
                              .arg(parser.value(o.scale)));
    options.steadyLight = parser.isSet(o.steadyLight) || parser.isSet(o.sceneChange);
    if (parser.isSet(o.sceneChange)
        && !MapToolCommandLine::readShare(parser.value(o.sceneChange), &options.sceneChangeShare))
        return usageError(tr("Bad share '%1' for --scene-change: use a number above 0 and at most 1.")
                              .arg(parser.value(o.sceneChange)));
    const QString besideError = checkReportBesideMaps(options);
    if (!besideError.isEmpty())
        return usageError(besideError);
    const QString combineError = readCombine(parser, o, options);
    if (!combineError.isEmpty())
        return usageError(combineError);
    const QString sliceError = readSlice(parser, o, options);
    if (!sliceError.isEmpty())
        return usageError(sliceError);
    const QString timelapseError = readTimelapse(parser, o, options);
    if (!timelapseError.isEmpty())
        return usageError(timelapseError);
    options.videos = parser.positionalArguments();
    if (options.videos.isEmpty())
        return usageError(tr("No video given."));
    const QString slicedError = checkTimedInputs(options);
    if (!slicedError.isEmpty())
        return usageError(slicedError);
    return result;
}

} // namespace

namespace MapToolCommandLine {

ParsedCommandLine parse(const QStringList& arguments, int cores)
{
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsCompactedShortOptions);
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
    const Options options;
    options.addTo(parser);
    if (!parser.parse(arguments))
        return usageError(parser.errorText());
    ParsedCommandLine result;
    if (parser.isSet(options.help)) {
        result.action = ParsedCommandLine::Action::ShowHelp;
        return result;
    }
    if (parser.isSet(options.version)) {
        result.action = ParsedCommandLine::Action::ShowVersion;
        return result;
    }
    return readValues(parser, options, cores);
}

bool readTime(const QString& text, double* seconds)
{
    static const QRegularExpression plain(QStringLiteral("^\\d+(\\.\\d+)?$"));
    static const QRegularExpression clock(
        QStringLiteral("^(?:(\\d+):([0-5]\\d):|(\\d+):)([0-5]?\\d(?:\\.\\d+)?)$"));
    double value = 0.0;
    if (plain.match(text).hasMatch()) {
        value = text.toDouble();
    } else {
        const QRegularExpressionMatch match = clock.match(text);
        if (!match.hasMatch())
            return false;
        const double hours = match.captured(1).toDouble();
        const double minutes = match.captured(2).isEmpty() ? match.captured(3).toDouble() : match.captured(2).toDouble();
        value = hours * 3600.0 + minutes * 60.0 + match.captured(4).toDouble();
    }
    if (!std::isfinite(value) || value < 0.0)
        return false;
    *seconds = value;
    return true;
}

bool readScale(const QString& text, double* scale, bool* automatic)
{
    if (text == QLatin1String("auto")) {
        *automatic = true;
        return true;
    }
    static const QRegularExpression number(QStringLiteral("^\\d+(\\.\\d+)?$"));
    if (!number.match(text).hasMatch())
        return false;
    const double value = text.toDouble();
    if (!std::isfinite(value) || value <= 0.0)
        return false;
    *scale = value;
    *automatic = false;
    return true;
}

bool readShare(const QString& text, double* share)
{
    static const QRegularExpression number(QStringLiteral("^(\\d+(\\.\\d*)?|\\.\\d+)$"));
    if (!number.match(text).hasMatch())
        return false;
    const double value = text.toDouble();
    if (!std::isfinite(value) || value <= 0.0 || value > 1.0)
        return false;
    *share = value;
    return true;
}

bool readDuration(const QString& text, double* seconds)
{
    static const QRegularExpression duration(QStringLiteral("^(\\d+(?:\\.\\d+)?)([smh]?)$"));
    const QRegularExpressionMatch match = duration.match(text);
    if (!match.hasMatch())
        return false;
    const QString unit = match.captured(2);
    const double factor = unit == QLatin1String("h") ? 3600.0 : unit == QLatin1String("m") ? 60.0 : 1.0;
    const double value = match.captured(1).toDouble() * factor;
    // Slices are named to the second, so a slice shorter than one, or ending within one,
    // would share its name with another; a film's steps follow the same rule.
    if (!std::isfinite(value) || value < 1.0 || value != std::floor(value))
        return false;
    *seconds = value;
    return true;
}

QString versionText()
{
    return QStringLiteral("tremora-map %1").arg(QString::fromLatin1(Version::version));
}

QString helpText()
{
    return tr(R"(Usage: tremora-map [OPTIONS] VIDEO...

Writes the motion map of every VIDEO: where motion happened in the video, as a
colour scale from blue (rare) to red (frequent) over a darkened grey copy of the
scene's background. A map is the same, byte for byte, as the one the Tremora
window saves for that video in the same format.

Options:
  -o, --output-dir DIR  Write the files into DIR (created when missing) instead
                        of the folder of each video.
  -f, --format FORMAT   Image format of the maps: png (default), jpg or bmp.
  -j, --jobs N          Analyse N files at once (default 2; 0 means one per
                        processor core). Files start in the order given.
      --counts          Also write each video's per-pixel count of motion
                        events as an 8-bit grey PNG, NAME.counts.png.
      --background      Also write the learnt background picture as an RGB
                        PNG, NAME.background.png.
      --no-blur         Compare the frames without smoothing them first (and
                        with the threshold 40 instead of 20).
      --data            Also write the exact data behind each map:
                        NAME.events.png (16-bit events per pixel, no wrap),
                        NAME.background.png, NAME.activity.csv (one row per
                        frame pair: pair,time_s,moving_pixels,new_events) and
                        the manifest NAME.json.
      --mask FILE       Analyse only the light parts of the picture FILE;
                        its dark parts (luma below 128) are ignored. Scaled to
                        each video's size when it differs. At most 16384
                        pixels on a side.
      --start T         Analyse from time T on (seconds, or [hh:]mm:ss[.fff]),
                        seeking to the key frame before it.
      --end T           Analyse up to time T.
      --report DIR      Also write DIR/index.html, a page that shows every
                        map with its figures and activity over time, and
                        when motion began at a point of a map, with a card
                        per slice (--slice) and for the combined map
                        (--combine). Implies --data.
      --scale N|auto    Colour scale of the maps: N events reach its top (the
                        dark red); a count shows at min(count x 255 / N, 255)
                        on the scale. The default, 8.5, is the window's 30 per
                        event. auto takes the 99th percentile of the non-zero
                        counts of each map (of all slices together with
                        --slice). Given, maps are drawn from the
                        exact counts, which do not wrap at 256 events.
      --combine NAME    Add every input up into one map, NAME.FORMAT: the
                        exact counts summed, over the background of the first
                        input. Inputs may also be manifests written by --data
                        (NAME.json), taken from their files without decoding.
                        Inputs of another size than the first are left out,
                        and so are manifests analysed with other parameters
                        than the first input, and an input given again (the
                        same file by another path, or a video and its
                        manifest): it counts once. --mask, --start, --end and
                        --no-blur apply to the videos only.
                        With --data, also NAME.events.png, NAME.activity.csv
                        (with a file column) and the manifest NAME.json.
      --legend          Also write NAME.legend.png: the map with a strip below
                        it that explains it (colour scale in events and events
                        per hour, what grey means, name, time span, mask).
      --slice DURATION  One map per slice of DURATION (90s, 10m, 1h; a plain
                        number is seconds; whole seconds) of each video
                        instead of one per video: NAME.slice-HHhMMmSSs.FORMAT,
                        named by the slice's start from the video's start, or
                        by its clock time (UTC) when the video records its
                        creation time. A slice without motion gives no file.
                        With --combine, slices run along the combined time
                        line (clock time when every input records it, else
                        the inputs back to back): NAME.slice-HHhMMmSSs.FORMAT,
                        each over the background of the input it starts in.
                        With --legend, each slice gets its legend; with
                        --data, its exact counts (….slice-….events.png);
                        with --report, its card. Not with manifests.
      --timelapse STEP  Also write NAME.timelapse.mp4: the map as a film
                        (H.264 in MP4, 25 pictures a second), one picture per
                        STEP of the video (10s, 1m, 1h; whole seconds), each
                        showing the events that began before its time, drawn
                        as the map draws them (on --scale), with the time it
                        reaches and the file's name below. The last picture
                        is the whole map. With --combine, one film along the
                        combined time line, as --slice places the inputs;
                        with --report, each card plays its film. Not with
                        manifests.
      --timelapse-window W
                        Each picture of the film shows only the events of the
                        last W (a multiple of STEP), so that a pattern that
                        moves is seen moving.
      --steady-light    A change of light is not motion: in each frame pair
                        the lower median of the differences between the two
                        frames (over the analysed pixels) is taken out before
                        the threshold, so a lamp switched on or an exposure
                        step moves nothing; a pair in which more than half of
                        the analysed pixels still move is a scene change (a
                        camera switching to infrared, a lamp lighting half a
                        room) and starts no event. With --data, the activity
                        table gains a scene_change column.
      --scene-change F  The share of the analysed pixels (above 0, at most 1;
                        default 0.5) above which a pair is a scene change.
                        Implies --steady-light.
      --zones FILE      Also count the named parts of the picture that the
                        JSON file FILE defines, {"zones": [{"name": "door",
                        "polygon": [[x, y], ...]}, ...]} in pixels of the
                        video (at most 64 zones, names of 1 to 64 characters,
                        unique): NAME.zones.csv (one row per zone and frame
                        pair with motion there:
                        zone,pair,time_s,moving_pixels,new_events), each
                        zone's figures in the manifest, and its outline on
                        legends and the report. Implies --data.
      --overwrite       Replace output files that exist already (and an
                        earlier report in DIR).
  -q, --quiet           Print no progress and no per-file messages. Errors are
                        still printed.
  -h, --help            Show this text and exit.
  -v, --version         Show the version and exit.
Use -- before a VIDEO whose name begins with a dash.

Output files:
  NAME is the video's file name up to its first dot: clip.part1.mp4 gives
  clip.png (and clip.counts.png, clip.background.png).
  Nothing is replaced without --overwrite: an input whose output file exists
  is reported and not analysed. Two inputs that would write the same file
  (a.mp4 and a.avi, or one name in two folders with --output-dir) are found
  before any analysis: the later one is reported and not analysed.
  Every file is written under a temporary name and renamed into place when
  complete, so a failed or interrupted write leaves no partial file.
  A video without a single frame gives a black map, as does a --start after
  the end of the video.
  With --data, the manifest NAME.json is written last, also for an input that
  failed or was canceled; man tremora-map describes every data file.

Progress (on standard error):
  On a terminal, one line per running file with its percentage, and the
  frames per second analysed by all jobs together, updated in place.
  Otherwise one line when a file starts and one when it ends, for example
  "clip.mp4: done -> /out/clip.png".

Exit status:
  0    Every map was written.
  1    At least one input failed: its video could not be opened
         Can't open video file '...'
       or one of its files could not be written
         Can't save image file '...'
       or one of its files exists, or an earlier input writes the same file,
       or it is a manifest without --combine, or --combine left it out,
       or one of its --zones has no analysed pixel in it.
       The other inputs are processed all the same.
  2    Usage error: unknown option, missing or bad value (a malformed time,
       --start after --end, a mask that cannot be read or is larger
       than 16384 pixels on a side, --scale 0 or
       below, a --combine name with a folder, --slice 0 or malformed,
       --scene-change not above 0 and at most 1, a zone file that cannot
       be read or is malformed),
       no VIDEO. Nothing
       is analysed.
  130  Interrupted by SIGINT (Ctrl+C) or SIGTERM. The running analyses
       stop, no partial map is written, files already written stay. A second
       signal ends the program at once.

Examples:
  tremora-map clip.mp4
  tremora-map --format jpg --output-dir maps *.mp4
  tremora-map --jobs 0 --counts --background -o out camera1/*.mkv
  tremora-map --data --mask noclock.png --start 9:00:00 camera1.mkv
  tremora-map --output-dir maps --report maps/report camera1/*.mp4
  tremora-map --combine camera1 --scale auto maps/*.json
  tremora-map --slice 1h --scale 20 -o maps camera1.mkv
  tremora-map --zones shop.json -o maps camera1.mkv
  parallel tremora-map --jobs 1 ::: *.mp4
)");
}

} // namespace MapToolCommandLine
