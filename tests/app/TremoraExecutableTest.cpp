#include "TestSupport.h"

#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#include <sys/types.h>

// Starts the real program, as a desktop session would, and ends it with a signal as a logout
// or `kill` would. Settings go to an XDG_CONFIG_HOME of the test's own.
namespace {

constexpr int kStartTimeoutMs = 30000;
constexpr int kExitTimeoutMs = 60000;

bool makeClip(const QString& path, int frames)
{
    return TestSupport::runFfmpeg({"-f", "lavfi", "-i",
                                   QStringLiteral("testsrc=size=96x64:rate=25:duration=%1").arg(frames / 25.0),
                                   "-c:v", "ffv1", path});
}

} // namespace

class TremoraExecutableTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void quitsCleanlyOnSignalAndSavesGeometry_data();
    void quitsCleanlyOnSignalAndSavesGeometry();
    void storedGeometryIsKeptAcrossRuns();

private:
    // Starts the program with the clips, waits until it has opened both, sends the signal
    // and waits for the end; a failing step fails the calling test.
    void runAndSignal(const QString& configHome, int signalNumber, int* exitCode);

    QTemporaryDir m_clips;
    QStringList m_clipPaths;
};

void TremoraExecutableTest::initTestCase()
{
    QVERIFY(m_clips.isValid());
    QVERIFY(QFile::exists(QStringLiteral(TREMORA_EXECUTABLE)));
    m_clipPaths << m_clips.filePath(QStringLiteral("first.mkv"))
                << m_clips.filePath(QStringLiteral("second.mkv"));
    QVERIFY(makeClip(m_clipPaths.at(0), 20));
    QVERIFY(makeClip(m_clipPaths.at(1), 30));
}

void TremoraExecutableTest::runAndSignal(const QString& configHome, int signalNumber, int* exitCode)
{
    *exitCode = -1;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome);

    QProcess program;
    program.setProcessEnvironment(environment);
    program.setProcessChannelMode(QProcess::SeparateChannels);
    QByteArray errorOutput;
    connect(&program, &QProcess::readyReadStandardError, this,
            [&program, &errorOutput] { errorOutput += program.readAllStandardError(); });
    program.start(QStringLiteral(TREMORA_EXECUTABLE), m_clipPaths);
    QVERIFY(program.waitForStarted(kStartTimeoutMs));

    QTRY_VERIFY_WITH_TIMEOUT(TestSupport::catchesSignals(program.processId(), {SIGTERM, SIGINT}), kStartTimeoutMs);
    // The video library describes every file it opens: both command-line clips were queued
    // and analysed by the running program.
    for (const QString& clip : qAsConst(m_clipPaths))
        QTRY_VERIFY_WITH_TIMEOUT(errorOutput.contains(QFile::encodeName(clip)), kStartTimeoutMs);
    QCOMPARE(::kill(static_cast<pid_t>(program.processId()), signalNumber), 0);

    QVERIFY(program.waitForFinished(kExitTimeoutMs));
    errorOutput += program.readAllStandardError();
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    *exitCode = program.exitCode();
    if (*exitCode != 0)
        qWarning("%s", errorOutput.constData());
}

void TremoraExecutableTest::quitsCleanlyOnSignalAndSavesGeometry_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("SIGTERM") << int(SIGTERM);
    QTest::newRow("SIGINT") << int(SIGINT);
}

void TremoraExecutableTest::quitsCleanlyOnSignalAndSavesGeometry()
{
    QFETCH(int, signalNumber);
    QTemporaryDir configHome;
    QVERIFY(configHome.isValid());

    int exitCode = -1;
    runAndSignal(configHome.path(), signalNumber, &exitCode);
    if (QTest::currentTestFailed())
        return;
    QCOMPARE(exitCode, 0);

    const QString settingsFile = configHome.filePath(QStringLiteral("tremora/tremora.conf"));
    QVERIFY2(QFile::exists(settingsFile), qPrintable(settingsFile));
    QSettings settings(settingsFile, QSettings::IniFormat);
    QVERIFY(settings.contains(QStringLiteral("geometry_main_window")));
    QVERIFY(settings.contains(QStringLiteral("is_maximized_main_window")));
    QCOMPARE(settings.value(QStringLiteral("geometry_main_window")).toRect().size(), QSize(800, 600));
    QCOMPARE(settings.value(QStringLiteral("is_maximized_main_window")).toBool(), false);
}

void TremoraExecutableTest::storedGeometryIsKeptAcrossRuns()
{
    QTemporaryDir configHome;
    QVERIFY(configHome.isValid());
    const QString settingsFile = configHome.filePath(QStringLiteral("tremora/tremora.conf"));
    const QRect stored(40, 50, 640, 480);
    {
        QSettings settings(settingsFile, QSettings::IniFormat);
        settings.setValue(QStringLiteral("geometry_main_window"), stored);
        settings.setValue(QStringLiteral("is_maximized_main_window"), false);
    }

    int exitCode = -1;
    runAndSignal(configHome.path(), SIGTERM, &exitCode);
    if (QTest::currentTestFailed())
        return;
    QCOMPARE(exitCode, 0);

    QSettings settings(settingsFile, QSettings::IniFormat);
    QCOMPARE(settings.value(QStringLiteral("geometry_main_window")).toRect(), stored);
}

QTEST_GUILESS_MAIN(TremoraExecutableTest)
#include "TremoraExecutableTest.moc"
