// The command-line tool over damaged clips and odd files: each run ends with exit status 0
// or 1 within the time bound, and every input has either its map or its error line ("Can't
// open video file", or "Can't save image file" for one that never gave a picture size), never
// both and never neither.

#include "BadInputRuns.h"

#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include "TestSupport.h"

using namespace BadInputRuns;

namespace {

constexpr int kRunBoundMs = 240000;

struct ToolRun {
    bool finished = false;
    QProcess::ExitStatus exitStatus = QProcess::CrashExit;
    int exitCode = -1;
    QString errors;
};

ToolRun runTool(const QStringList& inputs, const QString& outputDir)
{
    QProcess process;
    process.setProgram(QStringLiteral(TREMORA_MAP_EXECUTABLE));
    process.setArguments(QStringList{"--quiet", "--jobs", "2", "--output-dir", outputDir} + inputs);
    process.start();
    ToolRun run;
    run.finished = process.waitForStarted() && process.waitForFinished(kRunBoundMs);
    if (!run.finished)
        process.kill();
    run.exitStatus = process.exitStatus();
    run.exitCode = process.exitCode();
    run.errors = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QString mapOf(const QString& input, const QString& outputDir)
{
    return outputDir + QLatin1Char('/') + QFileInfo(input).baseName() + QStringLiteral(".png");
}

} // namespace

class ToolBadInputsTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString written(const QString& name, const QByteArray& bytes)
    {
        const QString path = m_dir.filePath(name);
        return writeFile(path, bytes) ? path : QString();
    }

    // Runs the tool over `inputs` and checks each one's outcome; counts the maps in *maps.
    void checkRun(const std::vector<Input>& inputs, const QString& outputDir, int* maps)
    {
        QStringList paths;
        for (const Input& input : inputs)
            paths << input.path;
        const ToolRun run = runTool(paths, outputDir);
        QVERIFY2(run.finished, "the tool did not end within the time bound");
        QCOMPARE(run.exitStatus, QProcess::NormalExit);
        QVERIFY2(run.exitCode == 0 || run.exitCode == 1, qPrintable(run.errors));
        *maps = 0;
        for (const Input& input : inputs) {
            const bool hasMap = !QImage(mapOf(input.path, outputDir)).isNull();
            // A file that opens but never gives a picture size has no map to save.
            const bool reported = run.errors.contains(QStringLiteral("Can't open video file '%1'").arg(input.path))
                || run.errors.contains(QStringLiteral("Can't save image file '%1'").arg(mapOf(input.path, outputDir)));
            QVERIFY2(hasMap != reported, qPrintable(QString::fromUtf8(input.name) + QLatin1Char('\n') + run.errors));
            if (input.expected == Expected::Done)
                QVERIFY2(hasMap, input.name.constData());
            if (input.expected == Expected::Failed)
                QVERIFY2(reported, input.name.constData());
            *maps += hasMap ? 1 : 0;
        }
        QCOMPARE(run.exitCode, *maps == int(inputs.size()) ? 0 : 1);
    }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void damagedClipsEachEndWithAMapOrAnOpenError()
    {
        QString error;
        const QStringList seeds = makeSeedClips(m_dir.filePath("seeds"), &error);
        QVERIFY2(!seeds.isEmpty(), qPrintable(error));
        int maps = 0;
        int total = 0;
        // One run a seed: copies of two seeds can share a base name, and so a map's name.
        for (const QString& seed : seeds) {
            const QString folder = m_dir.filePath(QFileInfo(seed).fileName());
            QVERIFY(QDir().mkpath(folder + QStringLiteral("/maps")));
            const std::vector<Input> copies = damagedCopies(seed, folder);
            int seedMaps = 0;
            checkRun(copies, folder + QStringLiteral("/maps"), &seedMaps);
            QVERIFY(!QTest::currentTestFailed());
            maps += seedMaps;
            total += int(copies.size());
        }
        qInfo("%d of %d damaged clips gave a map", maps, total);
    }

    void oddFilesFailAndTheClipBesideThemIsMapped()
    {
        const QString clip = m_dir.filePath("good clip ÄÖ 映像.mkv");
        QVERIFY(TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc=size=64x48:rate=10:duration=1", "-c:v", "ffv1", clip}));
        QVERIFY(QDir(m_dir.path()).mkpath("folder.mp4"));
        const std::vector<Input> inputs{
            {"empty", written("empty.mp4", {}), Expected::Failed},
            {"random", written("random.mp4", QByteArray(64 * 1024, '\x5a')), Expected::Failed},
            {"text", written("notes.txt", QByteArray("Camera 3, night of the 14th.\n").repeated(40)), Expected::Failed},
            {"folder", m_dir.filePath("folder.mp4"), Expected::Failed},
            {"missing", m_dir.filePath("no/such/clip.mp4"), Expected::Failed},
            {"clip", clip, Expected::Done},
        };
        QVERIFY(QDir().mkpath(m_dir.filePath("odd-maps")));
        int maps = 0;
        checkRun(inputs, m_dir.filePath("odd-maps"), &maps);
        QVERIFY(!QTest::currentTestFailed());
        QCOMPARE(maps, 1);
    }
};

QTEST_GUILESS_MAIN(ToolBadInputsTest)
#include "ToolBadInputsTest.moc"
