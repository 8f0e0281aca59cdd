#include "MapToolOptions.h"

#include <QtTest>

#include <cmath>
#include <utility>
#include <vector>

namespace {

constexpr int kCores = 6;

ParsedCommandLine parse(const QStringList& arguments, int cores = kCores)
{
    return MapToolCommandLine::parse(QStringList{QStringLiteral("tremora-map")} + arguments, cores);
}

} // namespace

Q_DECLARE_METATYPE(ParsedCommandLine::Action)

class MapToolOptionsTest : public QObject {
    Q_OBJECT

private slots:
    void oneVideoGetsTheDefaults();
    void everyLongOptionIsRead();
    void shortAndEqualsFormsAreRead();
    void videosKeepTheirOrderAndOptionsMayFollowThem();
    void doubleDashEndsTheOptions();
    void jobsZeroMeansOnePerCore();
    void usageErrorsAreRefused_data();
    void usageErrorsAreRefused();
    void helpAndVersionWorkAlone_data();
    void helpAndVersionWorkAlone();
    void unknownOptionIsAnErrorEvenBesideHelp();
    void helpTextDocumentsEveryOptionTheNamingAndTheExitStatus();
    void versionTextNamesToolAndVersion();
    void dataMaskAndWindowAreRead();
    void withoutTheNewOptionsNothingChanges();
    void timesAreReadAsSecondsOrClockTimes_data();
    void timesAreReadAsSecondsOrClockTimes();
    void malformedTimesAreRefused_data();
    void malformedTimesAreRefused();
    void badTimeOptionsAreUsageErrorsNamingOptionAndValue_data();
    void badTimeOptionsAreUsageErrorsNamingOptionAndValue();
    void startEqualToEndIsAnEmptyWindowNotAnError();
    void reportIsReadAndBringsTheData();
    void aReportFolderThatIsOrHoldsTheMapsFolderIsAUsageError();
    void scaleIsReadAsEventsOrAuto();
    void badScalesAreUsageErrorsNamingTheValue_data();
    void badScalesAreUsageErrorsNamingTheValue();
    void combineNameIsRead();
    void combineRefusesNamesWithAFolderAndTheWrappingCounts_data();
    void combineRefusesNamesWithAFolderAndTheWrappingCounts();
    void sliceIsReadInSecondsMinutesOrHours_data();
    void sliceIsReadInSecondsMinutesOrHours();
    void badSlicesAreUsageErrorsNamingTheValue_data();
    void badSlicesAreUsageErrorsNamingTheValue();
    void sliceRefusesManifests_data();
    void sliceRefusesManifests();
    void sliceGoesWithCombineDataLegendAutoScaleAndTheReport();
    void steadyLightIsOffByDefaultAndTurnedOnAtHalf();
    void sceneChangeSetsTheShareAndImpliesSteadyLight_data();
    void sceneChangeSetsTheShareAndImpliesSteadyLight();
    void badSceneChangeSharesAreUsageErrorsNamingTheValue_data();
    void badSceneChangeSharesAreUsageErrorsNamingTheValue();
    void timelapseStepAndWindowAreRead();
    void badTimelapseStepsAndWindowsAreUsageErrors_data();
    void badTimelapseStepsAndWindowsAreUsageErrors();
    void timelapseRefusesManifests();
};

void MapToolOptionsTest::oneVideoGetsTheDefaults()
{
    const ParsedCommandLine parsed = parse({"clip.mp4"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    const MapToolOptions& o = parsed.options;
    QCOMPARE(o.videos, QStringList{"clip.mp4"});
    QVERIFY(o.outputDir.isEmpty());
    QCOMPARE(o.format, QStringLiteral("png"));
    QCOMPARE(o.jobs, 2);
    QVERIFY(!o.counts);
    QVERIFY(!o.background);
    QVERIFY(o.blur);
    QVERIFY(!o.overwrite);
    QVERIFY(!o.quiet);
}

void MapToolOptionsTest::everyLongOptionIsRead()
{
    const ParsedCommandLine parsed = parse({"--output-dir", "/out", "--format", "jpg", "--jobs", "3", "--counts",
                                            "--background", "--no-blur", "--overwrite", "--quiet", "a.mp4", "b.avi"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    const MapToolOptions& o = parsed.options;
    QCOMPARE(o.outputDir, QStringLiteral("/out"));
    QCOMPARE(o.format, QStringLiteral("jpg"));
    QCOMPARE(o.jobs, 3);
    QVERIFY(o.counts);
    QVERIFY(o.background);
    QVERIFY(!o.blur);
    QVERIFY(o.overwrite);
    QVERIFY(o.quiet);
    QCOMPARE(o.videos, (QStringList{"a.mp4", "b.avi"}));
}

void MapToolOptionsTest::shortAndEqualsFormsAreRead()
{
    const ParsedCommandLine shortForms = parse({"-o", "maps", "-f", "bmp", "-j", "1", "-q", "clip.mp4"});
    QCOMPARE(shortForms.action, ParsedCommandLine::Action::Run);
    QCOMPARE(shortForms.options.outputDir, QStringLiteral("maps"));
    QCOMPARE(shortForms.options.format, QStringLiteral("bmp"));
    QCOMPARE(shortForms.options.jobs, 1);
    QVERIFY(shortForms.options.quiet);

    const ParsedCommandLine equalsForms = parse({"--format=jpg", "--jobs=4", "--output-dir=x", "clip.mp4"});
    QCOMPARE(equalsForms.action, ParsedCommandLine::Action::Run);
    QCOMPARE(equalsForms.options.format, QStringLiteral("jpg"));
    QCOMPARE(equalsForms.options.jobs, 4);
    QCOMPARE(equalsForms.options.outputDir, QStringLiteral("x"));
}

void MapToolOptionsTest::videosKeepTheirOrderAndOptionsMayFollowThem()
{
    const ParsedCommandLine parsed = parse({"c.mp4", "a.mp4", "--format", "jpg", "b.mp4"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    QCOMPARE(parsed.options.videos, (QStringList{"c.mp4", "a.mp4", "b.mp4"}));
    QCOMPARE(parsed.options.format, QStringLiteral("jpg"));
}

void MapToolOptionsTest::doubleDashEndsTheOptions()
{
    const ParsedCommandLine parsed = parse({"--quiet", "--", "-odd.mp4", "--counts"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    QCOMPARE(parsed.options.videos, (QStringList{"-odd.mp4", "--counts"}));
    QVERIFY(!parsed.options.counts);
    QVERIFY(parsed.options.quiet);
}

void MapToolOptionsTest::jobsZeroMeansOnePerCore()
{
    QCOMPARE(parse({"--jobs", "0", "clip.mp4"}, 7).options.jobs, 7);
    QCOMPARE(parse({"--jobs", "0", "clip.mp4"}, 1).options.jobs, 1);
    // A system that cannot tell its cores still gets one file at a time.
    QCOMPARE(parse({"--jobs", "0", "clip.mp4"}, 0).options.jobs, 1);
}

void MapToolOptionsTest::usageErrorsAreRefused_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("no video") << QStringList{};
    QTest::newRow("options but no video") << QStringList{"--counts", "--format", "png"};
    QTest::newRow("unknown long option") << QStringList{"--colour", "clip.mp4"};
    QTest::newRow("unknown short option") << QStringList{"-x", "clip.mp4"};
    QTest::newRow("format without value") << QStringList{"clip.mp4", "--format"};
    QTest::newRow("jobs without value") << QStringList{"clip.mp4", "--jobs"};
    QTest::newRow("output dir without value") << QStringList{"clip.mp4", "--output-dir"};
    QTest::newRow("unknown format") << QStringList{"--format", "gif", "clip.mp4"};
    QTest::newRow("format in capitals") << QStringList{"--format", "PNG", "clip.mp4"};
    QTest::newRow("format with a dot") << QStringList{"--format", ".png", "clip.mp4"};
    QTest::newRow("negative jobs") << QStringList{"--jobs", "-1", "clip.mp4"};
    QTest::newRow("jobs not a number") << QStringList{"--jobs", "two", "clip.mp4"};
    QTest::newRow("jobs a fraction") << QStringList{"--jobs", "1.5", "clip.mp4"};
    QTest::newRow("jobs empty") << QStringList{"--jobs=", "clip.mp4"};
    QTest::newRow("output dir empty") << QStringList{"--output-dir=", "clip.mp4"};
    QTest::newRow("no-blur with a value") << QStringList{"--no-blur=yes", "clip.mp4"};
    QTest::newRow("mask without value") << QStringList{"clip.mp4", "--mask"};
    QTest::newRow("mask empty") << QStringList{"--mask=", "clip.mp4"};
    QTest::newRow("start without value") << QStringList{"clip.mp4", "--start"};
    QTest::newRow("data with a value") << QStringList{"--data=yes", "clip.mp4"};
}

void MapToolOptionsTest::usageErrorsAreRefused()
{
    QFETCH(QStringList, arguments);
    const ParsedCommandLine parsed = parse(arguments);
    QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
    QVERIFY(!parsed.error.trimmed().isEmpty());
    QVERIFY(!parsed.error.contains(QLatin1Char('\n')));
}

void MapToolOptionsTest::helpAndVersionWorkAlone_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<ParsedCommandLine::Action>("action");
    QTest::newRow("--help") << QStringList{"--help"} << ParsedCommandLine::Action::ShowHelp;
    QTest::newRow("-h") << QStringList{"-h"} << ParsedCommandLine::Action::ShowHelp;
    QTest::newRow("--help with a bad format") << QStringList{"--format", "gif", "--help"} << ParsedCommandLine::Action::ShowHelp;
    QTest::newRow("--help before --version") << QStringList{"--version", "--help"} << ParsedCommandLine::Action::ShowHelp;
    QTest::newRow("--version") << QStringList{"--version"} << ParsedCommandLine::Action::ShowVersion;
    QTest::newRow("-v") << QStringList{"-v"} << ParsedCommandLine::Action::ShowVersion;
    QTest::newRow("--version with videos") << QStringList{"clip.mp4", "--version"} << ParsedCommandLine::Action::ShowVersion;
}

void MapToolOptionsTest::helpAndVersionWorkAlone()
{
    QFETCH(QStringList, arguments);
    QFETCH(ParsedCommandLine::Action, action);
    QCOMPARE(parse(arguments).action, action);
}

void MapToolOptionsTest::unknownOptionIsAnErrorEvenBesideHelp()
{
    const ParsedCommandLine parsed = parse({"--help", "--colour"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
    QVERIFY(parsed.error.contains(QStringLiteral("colour")));
}

void MapToolOptionsTest::helpTextDocumentsEveryOptionTheNamingAndTheExitStatus()
{
    const QString help = MapToolCommandLine::helpText();
    QVERIFY(help.startsWith(QStringLiteral("Usage: tremora-map [OPTIONS] VIDEO...\n")));
    for (const char* option : {"--output-dir DIR", "--format FORMAT", "--jobs N", "--counts", "--background",
                               "--no-blur", "--overwrite", "--quiet", "--help", "--version", "--data",
                               "--mask FILE", "--start T", "--end T", "--report DIR", "--scale N|auto",
                               "--combine NAME", "--legend", "--slice DURATION", "--timelapse STEP",
                               "--timelapse-window W"})
        QVERIFY2(help.contains(QLatin1String(option)), option);
    for (const char* text : {"clip.part1.mp4 gives", "NAME.counts.png", "NAME.background.png", "Exit status:",
                             "\n  0 ", "\n  1 ", "\n  2 ", "\n  130 ", "Can't open video file", "Can't save image file",
                             "NAME.slice-HHhMMmSSs", "NAME.timelapse.mp4", "Examples:", "parallel tremora-map --jobs 1 ::: *.mp4"})
        QVERIFY2(help.contains(QLatin1String(text)), text);
    for (const QString& line : help.split(QLatin1Char('\n')))
        QVERIFY2(line.size() <= 80, qPrintable(line));
}

void MapToolOptionsTest::versionTextNamesToolAndVersion()
{
    QCOMPARE(MapToolCommandLine::versionText(), QStringLiteral("tremora-map 1.0.8"));
}


void MapToolOptionsTest::dataMaskAndWindowAreRead()
{
    const ParsedCommandLine parsed = parse({"--data", "--mask", "m.png", "--start", "1:30", "--end=3600", "a.mp4"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    const MapToolOptions& o = parsed.options;
    QVERIFY(o.data);
    QCOMPARE(o.maskPath, QStringLiteral("m.png"));
    QVERIFY(o.hasStart);
    QVERIFY(o.hasEnd);
    QCOMPARE(o.start, 90.0);
    QCOMPARE(o.end, 3600.0);
}

void MapToolOptionsTest::withoutTheNewOptionsNothingChanges()
{
    const MapToolOptions o = parse({"a.mp4"}).options;
    QVERIFY(!o.data);
    QVERIFY(o.maskPath.isEmpty());
    QVERIFY(!o.hasStart);
    QVERIFY(!o.hasEnd);
    QCOMPARE(o.start, 0.0);
    QVERIFY(std::isinf(o.end));
    QVERIFY(!o.scaleGiven);
    QVERIFY(!o.scaleAuto);
    QCOMPARE(o.scale, 8.5);
    QVERIFY(o.combineName.isEmpty());
    QCOMPARE(o.sliceSeconds, 0.0);
    QCOMPARE(o.timelapseSeconds, 0.0);
    QCOMPARE(o.timelapseWindowSeconds, 0.0);
}

void MapToolOptionsTest::timesAreReadAsSecondsOrClockTimes_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<double>("seconds");
    QTest::newRow("whole seconds") << "90" << 90.0;
    QTest::newRow("zero") << "0" << 0.0;
    QTest::newRow("fraction") << "12.25" << 12.25;
    QTest::newRow("minutes and seconds") << "1:30" << 90.0;
    QTest::newRow("minutes and seconds with fraction") << "01:30.5" << 90.5;
    QTest::newRow("many minutes") << "90:00" << 5400.0;
    QTest::newRow("hours") << "1:02:03" << 3723.0;
    QTest::newRow("hours with milliseconds") << "10:00:00.250" << 36000.25;
    QTest::newRow("beyond a day") << "30:00:00" << 108000.0;
}

void MapToolOptionsTest::timesAreReadAsSecondsOrClockTimes()
{
    QFETCH(QString, text);
    QFETCH(double, seconds);
    double read = -1.0;
    QVERIFY(MapToolCommandLine::readTime(text, &read));
    QCOMPARE(read, seconds);
}

void MapToolOptionsTest::malformedTimesAreRefused_data()
{
    QTest::addColumn<QString>("text");
    for (const char* text : {"", "-5", "+5", "1e3", "abc", "1:60", "1:2:3:4", "1:60:00", "1:5x", ":30", "1:", "1.5:00",
                             " 5", "5 ", "inf", "nan", "1,5", "12.", ".5"})
        QTest::newRow(qPrintable(QStringLiteral("'%1'").arg(QString::fromLatin1(text)))) << QString::fromLatin1(text);
}

void MapToolOptionsTest::malformedTimesAreRefused()
{
    QFETCH(QString, text);
    double read = -1.0;
    QVERIFY(!MapToolCommandLine::readTime(text, &read));
    QCOMPARE(read, -1.0);
}

void MapToolOptionsTest::badTimeOptionsAreUsageErrorsNamingOptionAndValue_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("named");
    QTest::newRow("bad start") << QStringList{"--start", "soon", "a.mp4"} << QStringList{"--start", "soon"};
    QTest::newRow("bad end") << QStringList{"--end", "1:75", "a.mp4"} << QStringList{"--end", "1:75"};
    QTest::newRow("start after end") << QStringList{"--start", "20", "--end", "0:10", "a.mp4"}
                                     << QStringList{"--start", "20", "--end", "0:10"};
}

void MapToolOptionsTest::badTimeOptionsAreUsageErrorsNamingOptionAndValue()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, named);
    const ParsedCommandLine parsed = parse(arguments);
    QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
    QVERIFY(!parsed.error.contains(QLatin1Char('\n')));
    for (const QString& word : named)
        QVERIFY2(parsed.error.contains(word), qPrintable(parsed.error));
}

void MapToolOptionsTest::startEqualToEndIsAnEmptyWindowNotAnError()
{
    QCOMPARE(parse({"--start", "5", "--end", "0:05", "a.mp4"}).action, ParsedCommandLine::Action::Run);
}

void MapToolOptionsTest::scaleIsReadAsEventsOrAuto()
{
    MapToolOptions o = parse({"--scale", "20", "a.mp4"}).options;
    QVERIFY(o.scaleGiven);
    QVERIFY(!o.scaleAuto);
    QCOMPARE(o.scale, 20.0);
    o = parse({"--scale=0.5", "a.mp4"}).options;
    QCOMPARE(o.scale, 0.5);
    o = parse({"--scale", "auto", "a.mp4"}).options;
    QVERIFY(o.scaleGiven);
    QVERIFY(o.scaleAuto);
}

void MapToolOptionsTest::badScalesAreUsageErrorsNamingTheValue_data()
{
    QTest::addColumn<QString>("value");
    QTest::newRow("zero") << "0";
    QTest::newRow("zero with decimals") << "0.000";
    QTest::newRow("negative") << "-3";
    QTest::newRow("word") << "big";
    QTest::newRow("auto in capitals") << "AUTO";
    QTest::newRow("empty") << "";
    QTest::newRow("infinite") << "inf";
    QTest::newRow("exponent") << "1e400";
}

void MapToolOptionsTest::badScalesAreUsageErrorsNamingTheValue()
{
    QFETCH(QString, value);
    const ParsedCommandLine parsed = parse({"--scale=" + value, "a.mp4"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
    QVERIFY2(parsed.error.contains(QStringLiteral("--scale")), qPrintable(parsed.error));
    QVERIFY2(parsed.error.contains(QStringLiteral("'%1'").arg(value)), qPrintable(parsed.error));
    QVERIFY(!parsed.error.contains(QLatin1Char('\n')));
}

void MapToolOptionsTest::combineNameIsRead()
{
    const ParsedCommandLine parsed = parse({"--combine", "camera 1.day", "a.json", "b.mkv"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    QCOMPARE(parsed.options.combineName, QStringLiteral("camera 1.day"));
    QCOMPARE(parsed.options.videos, (QStringList{"a.json", "b.mkv"}));
}

void MapToolOptionsTest::combineRefusesNamesWithAFolderAndTheWrappingCounts_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("named");
    QTest::newRow("slash") << QStringList{"--combine", "maps/day"} << "'maps/day'";
    QTest::newRow("backslash") << QStringList{"--combine", "maps\\day"} << "'maps\\day'";
    QTest::newRow("dot") << QStringList{"--combine", "."} << "'.'";
    QTest::newRow("empty") << QStringList{"--combine="} << "''";
    QTest::newRow("with counts") << QStringList{"--counts", "--combine", "day"} << "--counts";
}

void MapToolOptionsTest::combineRefusesNamesWithAFolderAndTheWrappingCounts()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, named);
    const ParsedCommandLine parsed = parse(arguments + QStringList{"a.mkv"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
    QVERIFY2(parsed.error.contains(QStringLiteral("--combine")), qPrintable(parsed.error));
    QVERIFY2(parsed.error.contains(named), qPrintable(parsed.error));
    QVERIFY(!parsed.error.contains(QLatin1Char('\n')));
}

void MapToolOptionsTest::reportIsReadAndBringsTheData()
{
    const ParsedCommandLine parsed = parse({"--report", "out/report", "a.mp4"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    QCOMPARE(parsed.options.reportDir, QStringLiteral("out/report"));
    QVERIFY(parsed.options.data);
    const ParsedCommandLine plain = parse({"a.mp4"});
    QVERIFY(plain.options.reportDir.isEmpty());
    QVERIFY(!plain.options.data);
    const ParsedCommandLine empty = parse({"--report", "", "a.mp4"});
    QCOMPARE(empty.action, ParsedCommandLine::Action::UsageError);
    QVERIFY(empty.error.contains(QStringLiteral("report folder")));
    QCOMPARE(parse({"--report"}).action, ParsedCommandLine::Action::UsageError);
}

void MapToolOptionsTest::aReportFolderThatIsOrHoldsTheMapsFolderIsAUsageError()
{
    // Published, the report takes its folder's place: the maps there would go with it.
    for (const auto& [maps, report] : std::vector<std::pair<QString, QString>>{
             {"out", "out"}, {"out", "./out/"}, {"out/maps", "out"}, {"out", "sub/../out"}}) {
        const ParsedCommandLine parsed = parse({"-o", maps, "--report", report, "a.mp4"});
        QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
        QVERIFY2(parsed.error.contains(QStringLiteral("folder of its own")), qPrintable(parsed.error));
    }
    for (const auto& [maps, report] : std::vector<std::pair<QString, QString>>{
             {"out", "out/report"}, {"out", "outer"}, {"out-maps", "out"}}) {
        const ParsedCommandLine parsed = parse({"-o", maps, "--report", report, "a.mp4"});
        QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    }
}

void MapToolOptionsTest::steadyLightIsOffByDefaultAndTurnedOnAtHalf()
{
    QVERIFY(!parse({"a.mp4"}).options.steadyLight);
    const MapToolOptions o = parse({"--steady-light", "a.mp4"}).options;
    QVERIFY(o.steadyLight);
    QCOMPARE(o.sceneChangeShare, 0.5);
}

void MapToolOptionsTest::sceneChangeSetsTheShareAndImpliesSteadyLight_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<double>("share");
    QTest::newRow("a quarter") << "0.25" << 0.25;
    QTest::newRow("all") << "1" << 1.0;
    QTest::newRow("no leading zero") << ".75" << 0.75;
    QTest::newRow("trailing point") << "1." << 1.0;
    QTest::newRow("tiny") << "0.001" << 0.001;
}

void MapToolOptionsTest::sceneChangeSetsTheShareAndImpliesSteadyLight()
{
    QFETCH(QString, value);
    QFETCH(double, share);
    const ParsedCommandLine parsed = parse({"--scene-change", value, "a.mp4"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    QVERIFY(parsed.options.steadyLight);
    QCOMPARE(parsed.options.sceneChangeShare, share);
}

void MapToolOptionsTest::badSceneChangeSharesAreUsageErrorsNamingTheValue_data()
{
    QTest::addColumn<QString>("value");
    QTest::newRow("zero") << "0";
    QTest::newRow("zero with decimals") << "0.000";
    QTest::newRow("negative") << "-0.5";
    QTest::newRow("above one") << "1.0001";
    QTest::newRow("not a number") << "nan";
    QTest::newRow("infinite") << "inf";
    QTest::newRow("word") << "half";
    QTest::newRow("percent") << "50%";
    QTest::newRow("empty") << "";
}

void MapToolOptionsTest::badSceneChangeSharesAreUsageErrorsNamingTheValue()
{
    QFETCH(QString, value);
    const ParsedCommandLine parsed = parse({"--scene-change=" + value, "a.mp4"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
    QVERIFY2(parsed.error.contains(QStringLiteral("--scene-change")), qPrintable(parsed.error));
    QVERIFY2(parsed.error.contains(QStringLiteral("'%1'").arg(value)), qPrintable(parsed.error));
    QVERIFY(!parsed.error.contains(QLatin1Char('\n')));
}

void MapToolOptionsTest::sliceIsReadInSecondsMinutesOrHours_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<double>("seconds");
    QTest::newRow("seconds") << "90s" << 90.0;
    QTest::newRow("minutes") << "10m" << 600.0;
    QTest::newRow("hours") << "1h" << 3600.0;
    QTest::newRow("fraction of an hour") << "1.5h" << 5400.0;
    QTest::newRow("plain number") << "45" << 45.0;
    QTest::newRow("fraction making whole seconds") << "0.5m" << 30.0;
}

void MapToolOptionsTest::sliceIsReadInSecondsMinutesOrHours()
{
    QFETCH(QString, value);
    QFETCH(double, seconds);
    const ParsedCommandLine parsed = parse({"--slice", value, "a.mp4"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    QCOMPARE(parsed.options.sliceSeconds, seconds);
    QCOMPARE(parse({"--slice=" + value, "--scale", "20", "--counts", "a.mp4"}).options.sliceSeconds, seconds);
}

void MapToolOptionsTest::badSlicesAreUsageErrorsNamingTheValue_data()
{
    QTest::addColumn<QString>("value");
    QTest::newRow("zero") << "0";
    QTest::newRow("zero minutes") << "0m";
    QTest::newRow("zero with decimals") << "0.00h";
    QTest::newRow("negative") << "-10m";
    QTest::newRow("below a second") << "0.5s";
    QTest::newRow("not whole seconds") << "90.5";
    QTest::newRow("unknown unit") << "10d";
    QTest::newRow("unit in capitals") << "10M";
    QTest::newRow("unit alone") << "m";
    QTest::newRow("two units") << "1h30m";
    QTest::newRow("clock time") << "1:00:00";
    QTest::newRow("empty") << "";
    QTest::newRow("infinite") << "inf";
    QTest::newRow("too large") << QString(400, QLatin1Char('9'));
}

void MapToolOptionsTest::badSlicesAreUsageErrorsNamingTheValue()
{
    QFETCH(QString, value);
    const ParsedCommandLine parsed = parse({"--slice=" + value, "a.mp4"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
    QVERIFY2(parsed.error.contains(QStringLiteral("--slice")), qPrintable(parsed.error));
    QVERIFY2(parsed.error.contains(QStringLiteral("'%1'").arg(value)), qPrintable(parsed.error));
    QVERIFY(!parsed.error.contains(QLatin1Char('\n')));
}

void MapToolOptionsTest::sliceRefusesManifests_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("named");
    QTest::newRow("a manifest") << QStringList{"--combine", "all", "a.mp4", "b.JSON"} << "'b.JSON' is a manifest";
}

void MapToolOptionsTest::sliceRefusesManifests()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, named);
    const ParsedCommandLine parsed = parse(QStringList{"--slice", "10m"} + arguments);
    QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
    QVERIFY2(parsed.error.contains(QStringLiteral("--slice")), qPrintable(parsed.error));
    QVERIFY2(parsed.error.contains(named), qPrintable(parsed.error));
    QVERIFY(!parsed.error.contains(QLatin1Char('\n')));
    QCOMPARE(parse(arguments).action, ParsedCommandLine::Action::Run);
}

void MapToolOptionsTest::sliceGoesWithCombineDataLegendAutoScaleAndTheReport()
{
    const ParsedCommandLine parsed = parse({"--slice", "10m", "--combine", "all", "--data", "--legend", "--scale", "auto",
                                            "--report", "r", "a.mp4", "b.mp4"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::Run);
    QCOMPARE(parsed.options.sliceSeconds, 600.0);
    QCOMPARE(parsed.options.combineName, QStringLiteral("all"));
    QVERIFY(parsed.options.data && parsed.options.legend && parsed.options.scaleAuto);
}

void MapToolOptionsTest::timelapseStepAndWindowAreRead()
{
    const MapToolOptions o = parse({"--timelapse", "1m", "--timelapse-window=1h", "a.mp4"}).options;
    QCOMPARE(o.timelapseSeconds, 60.0);
    QCOMPARE(o.timelapseWindowSeconds, 3600.0);
    const ParsedCommandLine plain = parse({"--timelapse=90", "--slice", "1h", "a.mp4"});
    QCOMPARE(plain.action, ParsedCommandLine::Action::Run);
    QCOMPARE(plain.options.timelapseSeconds, 90.0);
    QCOMPARE(plain.options.timelapseWindowSeconds, 0.0);
    QCOMPARE(plain.options.sliceSeconds, 3600.0);
}

void MapToolOptionsTest::badTimelapseStepsAndWindowsAreUsageErrors_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("named");
    QTest::newRow("0") << QStringList{"--timelapse", "0"} << "'0'";
    QTest::newRow("half a second") << QStringList{"--timelapse", "0.5s"} << "'0.5s'";
    QTest::newRow("1.5 s") << QStringList{"--timelapse", "1.5"} << "'1.5'";
    QTest::newRow("a word") << QStringList{"--timelapse", "often"} << "'often'";
    QTest::newRow("empty") << QStringList{"--timelapse="} << "''";
    QTest::newRow("window 90 s of 1 m") << QStringList{"--timelapse", "1m", "--timelapse-window", "90s"} << "90s";
    QTest::newRow("window 0") << QStringList{"--timelapse", "1s", "--timelapse-window", "0"} << "'0'";
    QTest::newRow("window alone") << QStringList{"--timelapse-window", "1h"} << "--timelapse STEP";
}

void MapToolOptionsTest::badTimelapseStepsAndWindowsAreUsageErrors()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, named);
    const ParsedCommandLine parsed = parse(arguments << "a.mp4");
    QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
    QVERIFY2(parsed.error.contains(named) && parsed.error.contains("--timelapse"), qPrintable(parsed.error));
    QVERIFY(!parsed.error.contains('\n'));
}

void MapToolOptionsTest::timelapseRefusesManifests()
{
    const ParsedCommandLine parsed = parse({"--combine", "all", "--timelapse", "10s", "a.mp4", "b.json"});
    QCOMPARE(parsed.action, ParsedCommandLine::Action::UsageError);
    QVERIFY2(parsed.error.contains("--timelapse needs the videos") && parsed.error.contains("b.json"),
             qPrintable(parsed.error));
}

QTEST_GUILESS_MAIN(MapToolOptionsTest)
#include "MapToolOptionsTest.moc"
