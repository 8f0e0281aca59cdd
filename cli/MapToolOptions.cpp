#include "MapToolOptions.h"

#include "Version.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>

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
    QCommandLineOption help{{"h", "help"}};
    QCommandLineOption version{{"v", "version"}};

    void addTo(QCommandLineParser& parser) const
    {
        parser.addOptions({outputDir, format, jobs, counts, background, noBlur, overwrite, quiet, help, version});
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
    options.videos = parser.positionalArguments();
    if (options.videos.isEmpty())
        return usageError(tr("No video given."));
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
      --overwrite       Replace output files that exist already.
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
  A video without a single frame gives a black map.

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
       or one of its files exists, or an earlier input writes the same file.
       The other inputs are processed all the same.
  2    Usage error: unknown option, missing or bad value, no VIDEO.
  130  Interrupted by SIGINT (Ctrl+C) or SIGTERM. The running analyses
       stop, no partial map is written, files already written stay. A second
       signal ends the program at once.

Examples:
  tremora-map clip.mp4
  tremora-map --format jpg --output-dir maps *.mp4
  tremora-map --jobs 0 --counts --background -o out camera1/*.mkv
  parallel tremora-map --jobs 1 ::: *.mp4
)");
}

} // namespace MapToolCommandLine
