#include "MainWindow.h"
#include "Startup.h"
#include "TerminationSignals.h"
#include "TestSupport.h"
#include "Tremora.h"

#include <QListWidget>
#include <QSettings>
#include <QtTest>

#include <csignal>
#include <memory>
#include <vector>

namespace {

QListWidget* listOf(MainWindow& window)
{
    return window.findChild<QListWidget*>(QStringLiteral("mainList"));
}

QStringList queuedPaths(MainWindow& window)
{
    QStringList paths;
    QListWidget* list = listOf(window);
    for (int row = 0; row < list->count(); ++row)
        paths << static_cast<Tremora*>(list->item(row))->m_path;
    return paths;
}

// The rows the window lists when it is first shown.
class ShowRecorder : public QObject {
public:
    explicit ShowRecorder(MainWindow& window)
        : m_window(window)
    {
        window.installEventFilter(this);
    }

    int shows = 0;
    QStringList pathsAtFirstShow;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (watched == &m_window && event->type() == QEvent::Show && shows++ == 0)
            pathsAtFirstShow = queuedPaths(m_window);
        return false;
    }

private:
    MainWindow& m_window;
};

bool hasDefaultDisposition(int signalNumber)
{
    struct sigaction current = {};
    ::sigaction(signalNumber, nullptr, &current);
    return current.sa_handler == SIG_DFL;
}

} // namespace

class StartupTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void settingsAreKeptUnderTremoraIdentity();
    void commandLineFilesReachProcessFileInOrderBeforeShow();
    void commandLineArgumentsAreDecodedAsUtf8();
    void noArgumentsLeaveListEmpty();
    void nullArgumentBecomesEmptyPath();
    void terminationSignalsArriveAsQtSignal_data();
    void terminationSignalsArriveAsQtSignal();
    void destroyingWatcherRestoresDefaultDisposition();

private:
    std::unique_ptr<TestSupport::ScopedSettings> m_settings;
};

void StartupTest::init()
{
    m_settings = std::make_unique<TestSupport::ScopedSettings>();
    Startup::setSettingsIdentity();
}

void StartupTest::cleanup()
{
    m_settings.reset();
}

void StartupTest::settingsAreKeptUnderTremoraIdentity()
{
    QCoreApplication::setOrganizationName(QStringLiteral("other"));
    QCoreApplication::setApplicationName(QStringLiteral("other"));
    Startup::setSettingsIdentity();
    QCOMPARE(QCoreApplication::organizationName(), QStringLiteral("tremora"));
    QCOMPARE(QCoreApplication::applicationName(), QStringLiteral("tremora"));

    QSettings settings;
    QCOMPARE(settings.organizationName(), QStringLiteral("tremora"));
    QCOMPARE(settings.applicationName(), QStringLiteral("tremora"));
    QCOMPARE(settings.scope(), QSettings::UserScope);
    QCOMPARE(settings.format(), QSettings::NativeFormat);
    QCOMPARE(settings.fileName(), m_settings->path() + QStringLiteral("/tremora/tremora.conf"));
}

void StartupTest::commandLineFilesReachProcessFileInOrderBeforeShow()
{
    MainWindow window;
    ShowRecorder recorder(window);
    const char* argv[] = {"tremora", "/nonexistent/b-second.mkv", "/nonexistent/a-first.mkv",
                          "/nonexistent/c-third.mkv"};
    Startup::showWithCommandLineFiles(window, 4, argv);
    QVERIFY(window.isVisible());
    QCOMPARE(recorder.shows, 1);
    const QStringList expected = {"/nonexistent/b-second.mkv", "/nonexistent/a-first.mkv", "/nonexistent/c-third.mkv"};
    QCOMPARE(recorder.pathsAtFirstShow, expected);
    QCOMPARE(queuedPaths(window), expected);
    QVERIFY(listOf(window)->item(0)->text().startsWith(QStringLiteral("b-second.mkv (")));
}

void StartupTest::commandLineArgumentsAreDecodedAsUtf8()
{
    MainWindow window;
    const char* argv[] = {"tremora", "/tmp/k\xc3\xa4se-\xe2\x82\xac.mp4"};
    Startup::queueCommandLineFiles(window, 2, argv);
    QCOMPARE(queuedPaths(window), QStringList{QStringLiteral("/tmp/k\u00e4se-\u20ac.mp4")});
}

void StartupTest::noArgumentsLeaveListEmpty()
{
    MainWindow window;
    const char* argv[] = {"tremora"};
    Startup::queueCommandLineFiles(window, 1, argv);
    QCOMPARE(listOf(window)->count(), 0);
}

void StartupTest::nullArgumentBecomesEmptyPath()
{
    MainWindow window;
    const char* argv[] = {"tremora", nullptr, "/nonexistent/after.mkv"};
    Startup::queueCommandLineFiles(window, 3, argv);
    const QStringList paths = queuedPaths(window);
    QCOMPARE(paths.size(), 2);
    QVERIFY(paths.at(0).isEmpty());
    QCOMPARE(paths.at(1), QStringLiteral("/nonexistent/after.mkv"));
}

void StartupTest::terminationSignalsArriveAsQtSignal_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("SIGTERM") << int(SIGTERM);
    QTest::newRow("SIGINT") << int(SIGINT);
}

void StartupTest::terminationSignalsArriveAsQtSignal()
{
    QFETCH(int, signalNumber);
    TerminationSignals watcher;
    QVERIFY(watcher.isActive());
    QSignalSpy received(&watcher, &TerminationSignals::received);
    QCOMPARE(::raise(signalNumber), 0);
    QVERIFY(received.wait(5000));
    QCOMPARE(received.count(), 1);
    QCOMPARE(received.at(0).at(0).toInt(), signalNumber);
}

void StartupTest::destroyingWatcherRestoresDefaultDisposition()
{
    {
        TerminationSignals watcher;
        QVERIFY(!hasDefaultDisposition(SIGTERM));
        QVERIFY(!hasDefaultDisposition(SIGINT));
    }
    QVERIFY(hasDefaultDisposition(SIGTERM));
    QVERIFY(hasDefaultDisposition(SIGINT));
}

QTEST_MAIN(StartupTest)
#include "StartupTest.moc"
