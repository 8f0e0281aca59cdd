#include "OutputPlan.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

bool touch(const QString& path, const QByteArray& content = "old")
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// The fields of a manifest that say how its analysis ended, as the tool writes them.
QByteArray manifestRecording(const char* status)
{
    return QByteArray(R"({"format": "tremora-map data", "format_version": 1, "files": [], "outcome": {"status": ")")
           + status + R"("}})";
}

MapToolOptions optionsFor(const QStringList& videos)
{
    MapToolOptions options;
    options.videos = videos;
    return options;
}

} // namespace

class OutputPlanTest : public QObject {
    Q_OBJECT

private slots:
    void init();

    void mapNameIsTheBaseNameUpToTheFirstDot_data();
    void mapNameIsTheBaseNameUpToTheFirstDot();
    void countsAndBackgroundAreNamedAfterTheBaseName();
    void aSlicePathTakesFolderAndNameAsTheyAre_data();
    void aSlicePathTakesFolderAndNameAsTheyAre();
    void mapsGoBesideEachVideoByDefault();
    void relativeVideoMapsGoIntoItsOwnFolder();
    void outputDirReceivesEveryFile();
    void extraFilesArePlannedOnlyWhenAsked();
    void existingMapStopsTheInputWithoutOverwrite();
    void existingCountsFileStopsTheInputWithoutOverwrite();
    void danglingLinkCountsAsExisting();
    void overwriteLetsExistingFilesBeReplaced();
    void sameBaseNameInOneFolderStopsTheSecondInput();
    void sameNameInTwoFoldersCollidesOnlyInOneOutputDir();
    void sameVideoTwiceStopsTheSecond();
    void collisionIsFoundThroughALinkedFolder();
    void mapThatWouldReplaceAVideoIsRefused();
    void planningWritesNothing();
    void dataPlansEventsBackgroundActivityAndManifestManifestLast();
    void anExistingManifestStopsTheInputWithoutOverwrite();
    void aManifestOfACanceledAnalysisDoesNotStopTheInput();
    void aManifestOfAFailedAnalysisStopsTheInput();
    void dataFilesOfTwoInputsCollideLikeMaps();
    void slicesReplaceTheMapOfTheWholeVideo();
    void aManifestIsNotPlannedAndClaimsNoFile();

private:
    QTemporaryDir m_dir;
    QString path(const QString& name) const { return QDir(m_dir.path()).filePath(name); }
};

void OutputPlanTest::init()
{
    QVERIFY(m_dir.isValid());
    QDir dir(m_dir.path());
    for (const QString& entry : dir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System | QDir::Hidden)) {
        QFileInfo info(dir.filePath(entry));
        if (info.isDir() && !info.isSymLink())
            QVERIFY(QDir(info.filePath()).removeRecursively());
        else
            QVERIFY(dir.remove(entry));
    }
}

void OutputPlanTest::mapNameIsTheBaseNameUpToTheFirstDot_data()
{
    QTest::addColumn<QString>("video");
    QTest::addColumn<QString>("extension");
    QTest::addColumn<QString>("name");
    QTest::newRow("two dots") << "clip.part1.mp4" << "png" << "clip.png";
    QTest::newRow("folder with a dot") << "/a.b/clip.mkv" << "jpg" << "clip.jpg";
    QTest::newRow("no suffix") << "clip" << "bmp" << "clip.bmp";
    QTest::newRow("hidden file") << ".clip.mp4" << "png" << ".png";
}

void OutputPlanTest::mapNameIsTheBaseNameUpToTheFirstDot()
{
    QFETCH(QString, video);
    QFETCH(QString, extension);
    QFETCH(QString, name);
    QCOMPARE(OutputPlan::mapFileName(video, extension), name);
}

void OutputPlanTest::countsAndBackgroundAreNamedAfterTheBaseName()
{
    QCOMPARE(OutputPlan::countsFileName(QStringLiteral("/v/clip.part1.mp4")), QStringLiteral("clip.counts.png"));
    QCOMPARE(OutputPlan::backgroundFileName(QStringLiteral("/v/clip.part1.mp4")), QStringLiteral("clip.background.png"));
}

void OutputPlanTest::aSlicePathTakesFolderAndNameAsTheyAre_data()
{
    QTest::addColumn<QString>("video");
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("expected");
    QTest::newRow("plain") << "clip.mp4" << "/maps" << "/maps/clip.slice-09h00m00s.png";
    QTest::newRow("%1 in the name") << "cam%1.avi" << "/maps" << "/maps/cam%1.slice-09h00m00s.png";
    QTest::newRow("%0 in the name") << "x%0.avi" << "/maps" << "/maps/x%0.slice-09h00m00s.png";
    QTest::newRow("%% and {}") << "y%%{}.avi" << "/m%1" << "/m%1/y%%{}.slice-09h00m00s.png";
    QTest::newRow("%99 in the folder") << "clip.mp4" << "/a%99" << "/a%99/clip.slice-09h00m00s.png";
}

void OutputPlanTest::aSlicePathTakesFolderAndNameAsTheyAre()
{
    QFETCH(QString, video);
    QFETCH(QString, folder);
    QFETCH(QString, expected);
    const QString pattern = folder + QLatin1Char('/') + OutputPlan::sliceFileName(video, QStringLiteral("png"));
    QCOMPARE(OutputPlan::slicePath(pattern, QStringLiteral("09h00m00s")), expected);
}

void OutputPlanTest::mapsGoBesideEachVideoByDefault()
{
    QVERIFY(QDir(m_dir.path()).mkpath("one"));
    QVERIFY(QDir(m_dir.path()).mkpath("two"));
    const std::vector<PlannedInput> plan = OutputPlan::plan(optionsFor({path("one/a.part1.mp4"), path("two/b.mkv")}));
    QCOMPARE(plan.size(), size_t(2));
    QCOMPARE(plan[0].video, path("one/a.part1.mp4"));
    QCOMPARE(plan[0].mapPath, path("one/a.png"));
    QCOMPARE(plan[1].mapPath, path("two/b.png"));
    QVERIFY(plan[0].error.isEmpty());
    QVERIFY(plan[1].error.isEmpty());
}

void OutputPlanTest::relativeVideoMapsGoIntoItsOwnFolder()
{
    QVERIFY(QDir(m_dir.path()).mkpath("sub"));
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_dir.path()));
    const std::vector<PlannedInput> plan = OutputPlan::plan(optionsFor({"sub/clip.mp4", "top.mp4"}));
    QVERIFY(QDir::setCurrent(previous));
    // The working folder as the system reports it, links resolved.
    const QDir working(QFileInfo(m_dir.path()).canonicalFilePath());
    QCOMPARE(plan[0].video, QStringLiteral("sub/clip.mp4"));
    QCOMPARE(plan[0].mapPath, working.filePath("sub/clip.png"));
    QCOMPARE(plan[1].mapPath, working.filePath("top.png"));
}

void OutputPlanTest::outputDirReceivesEveryFile()
{
    MapToolOptions options = optionsFor({"/videos/a.mp4", "/elsewhere/b.avi"});
    options.outputDir = path("maps");
    options.format = QStringLiteral("jpg");
    const std::vector<PlannedInput> plan = OutputPlan::plan(options);
    QCOMPARE(plan[0].mapPath, path("maps/a.jpg"));
    QCOMPARE(plan[1].mapPath, path("maps/b.jpg"));
}

void OutputPlanTest::extraFilesArePlannedOnlyWhenAsked()
{
    MapToolOptions options = optionsFor({path("clip.mp4")});
    PlannedInput plain = OutputPlan::plan(options).front();
    QVERIFY(plain.countsPath.isEmpty());
    QVERIFY(plain.backgroundPath.isEmpty());
    QCOMPARE(plain.outputs(), QStringList{path("clip.png")});

    options.counts = true;
    options.background = true;
    const PlannedInput all = OutputPlan::plan(options).front();
    QCOMPARE(all.countsPath, path("clip.counts.png"));
    QCOMPARE(all.backgroundPath, path("clip.background.png"));
    QCOMPARE(all.outputs(), (QStringList{path("clip.png"), path("clip.counts.png"), path("clip.background.png")}));
}

void OutputPlanTest::dataPlansEventsBackgroundActivityAndManifestManifestLast()
{
    MapToolOptions options = optionsFor({path("clip.part1.mp4")});
    options.data = true;
    options.counts = true;
    const PlannedInput input = OutputPlan::plan(options).front();
    QCOMPARE(input.eventsPath, path("clip.events.png"));
    QCOMPARE(input.backgroundPath, path("clip.background.png"));
    QCOMPARE(input.activityPath, path("clip.activity.csv"));
    QCOMPARE(input.manifestPath, path("clip.json"));
    QCOMPARE(input.outputs(), (QStringList{path("clip.png"), path("clip.counts.png"), path("clip.events.png"),
                                           path("clip.background.png"), path("clip.activity.csv"), path("clip.json")}));
}

void OutputPlanTest::anExistingManifestStopsTheInputWithoutOverwrite()
{
    QVERIFY(touch(path("a.json")));
    MapToolOptions options = optionsFor({path("a.mp4")});
    QVERIFY(OutputPlan::plan(options).front().error.isEmpty());
    options.data = true;
    QVERIFY(OutputPlan::plan(options).front().error.contains(path("a.json")));
    options.overwrite = true;
    QVERIFY(OutputPlan::plan(options).front().error.isEmpty());
}

void OutputPlanTest::aManifestOfACanceledAnalysisDoesNotStopTheInput()
{
    QVERIFY(touch(path("a.json"), manifestRecording("canceled")));
    MapToolOptions options = optionsFor({path("a.mp4")});
    options.data = true;
    const PlannedInput planned = OutputPlan::plan(options).front();
    QVERIFY2(planned.error.isEmpty(), qPrintable(planned.error));
    QVERIFY(planned.replacesCanceledManifest);
    // Only the manifest may be written over: a map beside it still stops the input.
    QVERIFY(touch(path("a.png")));
    QVERIFY(OutputPlan::plan(options).front().error.contains(path("a.png")));
}

void OutputPlanTest::aManifestOfAFailedAnalysisStopsTheInput()
{
    QVERIFY(touch(path("a.json"), manifestRecording("failed")));
    MapToolOptions options = optionsFor({path("a.mp4")});
    options.data = true;
    const PlannedInput planned = OutputPlan::plan(options).front();
    QVERIFY(planned.error.contains(path("a.json")));
    QVERIFY(!planned.replacesCanceledManifest);
}

void OutputPlanTest::dataFilesOfTwoInputsCollideLikeMaps()
{
    MapToolOptions options = optionsFor({path("a.mp4"), path("a.mkv")});
    options.data = true;
    const std::vector<PlannedInput> plan = OutputPlan::plan(options);
    QVERIFY(plan[0].error.isEmpty());
    QVERIFY(!plan[1].error.isEmpty());
}

void OutputPlanTest::existingMapStopsTheInputWithoutOverwrite()
{
    QVERIFY(touch(path("a.png")));
    const std::vector<PlannedInput> plan = OutputPlan::plan(optionsFor({path("a.mp4"), path("b.mp4")}));
    QVERIFY(plan[0].error.contains(path("a.png")));
    QVERIFY(plan[0].error.contains(QStringLiteral("exists")));
    QVERIFY(plan[1].error.isEmpty());
}

void OutputPlanTest::existingCountsFileStopsTheInputWithoutOverwrite()
{
    QVERIFY(touch(path("a.counts.png")));
    MapToolOptions options = optionsFor({path("a.mp4")});
    QVERIFY(OutputPlan::plan(options).front().error.isEmpty());
    options.counts = true;
    QVERIFY(OutputPlan::plan(options).front().error.contains(path("a.counts.png")));
}

void OutputPlanTest::danglingLinkCountsAsExisting()
{
    QVERIFY(QFile::link(path("nowhere/target.png"), path("a.png")));
    QVERIFY(!OutputPlan::plan(optionsFor({path("a.mp4")})).front().error.isEmpty());
}

void OutputPlanTest::overwriteLetsExistingFilesBeReplaced()
{
    QVERIFY(touch(path("a.png")));
    QVERIFY(touch(path("a.background.png")));
    MapToolOptions options = optionsFor({path("a.mp4")});
    options.background = true;
    options.overwrite = true;
    QVERIFY(OutputPlan::plan(options).front().error.isEmpty());
}

void OutputPlanTest::sameBaseNameInOneFolderStopsTheSecondInput()
{
    const std::vector<PlannedInput> plan = OutputPlan::plan(optionsFor({path("a.mp4"), path("b.mp4"), path("a.avi")}));
    QVERIFY(plan[0].error.isEmpty());
    QVERIFY(plan[1].error.isEmpty());
    QVERIFY(plan[2].error.contains(path("a.png")));
    QVERIFY(plan[2].error.contains(path("a.avi")));
    QVERIFY(plan[2].error.contains(path("a.mp4")));
}

void OutputPlanTest::sameNameInTwoFoldersCollidesOnlyInOneOutputDir()
{
    MapToolOptions options = optionsFor({path("one/clip.mp4"), path("two/clip.mp4")});
    std::vector<PlannedInput> plan = OutputPlan::plan(options);
    QVERIFY(plan[0].error.isEmpty());
    QVERIFY(plan[1].error.isEmpty());

    options.outputDir = path("maps");
    plan = OutputPlan::plan(options);
    QVERIFY(plan[0].error.isEmpty());
    QVERIFY(plan[1].error.contains(path("maps/clip.png")));
}

void OutputPlanTest::sameVideoTwiceStopsTheSecond()
{
    const std::vector<PlannedInput> plan = OutputPlan::plan(optionsFor({path("a.mp4"), path("./a.mp4")}));
    QVERIFY(plan[0].error.isEmpty());
    QVERIFY(!plan[1].error.isEmpty());
}

void OutputPlanTest::collisionIsFoundThroughALinkedFolder()
{
    QVERIFY(QDir(m_dir.path()).mkpath("real"));
    QVERIFY(QFile::link(path("real"), path("linked")));
    const std::vector<PlannedInput> plan = OutputPlan::plan(optionsFor({path("real/a.mp4"), path("linked/a.avi")}));
    QVERIFY(plan[0].error.isEmpty());
    QVERIFY(!plan[1].error.isEmpty());
}

void OutputPlanTest::mapThatWouldReplaceAVideoIsRefused()
{
    // Even with --overwrite: a video is never an output.
    MapToolOptions options = optionsFor({path("b.mp4"), path("still.png")});
    options.overwrite = true;
    const std::vector<PlannedInput> plan = OutputPlan::plan(options);
    QVERIFY(plan[0].error.isEmpty());
    QVERIFY(plan[1].error.contains(path("still.png")));

    // A later input's file that is an earlier input's video.
    options.videos = QStringList{path("b.mp4"), path("b.avi")};
    options.format = QStringLiteral("mp4");
    QVERIFY(OutputPlan::plan(options)[1].error.contains(path("b.mp4")));
}

void OutputPlanTest::planningWritesNothing()
{
    MapToolOptions options = optionsFor({path("a.mp4"), path("b.mp4"), path("a.avi")});
    options.counts = true;
    options.background = true;
    options.outputDir = path("maps");
    OutputPlan::plan(options);
    QVERIFY(QDir(m_dir.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).isEmpty());
}


void OutputPlanTest::slicesReplaceTheMapOfTheWholeVideo()
{
    QVERIFY(touch(path("a.png")));
    MapToolOptions options = optionsFor({path("a.mp4"), path("a.avi"), path("b.mp4")});
    options.sliceSeconds = 600.0;
    options.format = QStringLiteral("jpg");
    const std::vector<PlannedInput> plan = OutputPlan::plan(options);
    QVERIFY(plan[0].mapPath.isEmpty());
    QCOMPARE(plan[0].slicePattern, path("a.slice-%1.jpg"));
    QVERIFY2(plan[0].error.isEmpty(), qPrintable(plan[0].error));
    QVERIFY(plan[1].error.contains(QStringLiteral("would both write")));
    QCOMPARE(plan[2].slicePattern, path("b.slice-%1.jpg"));
    QVERIFY(plan[2].error.isEmpty());
    QVERIFY(OutputPlan::plan(optionsFor({path("a.mp4")})).front().slicePattern.isEmpty());
}

// Manifests are read by --combine only; the video beside one still writes the map the
// manifest would have been planned to write.
void OutputPlanTest::aManifestIsNotPlannedAndClaimsNoFile()
{
    const std::vector<PlannedInput> plan = OutputPlan::plan(optionsFor({path("a.json"), path("a.mp4")}));
    QVERIFY2(plan[0].error.contains(path("a.json")) && plan[0].error.contains("--combine"),
             qPrintable(plan[0].error));
    QCOMPARE(plan[1].error, QString());
    QCOMPARE(plan[1].mapPath, path("a.png"));
}

QTEST_GUILESS_MAIN(OutputPlanTest)
#include "OutputPlanTest.moc"
