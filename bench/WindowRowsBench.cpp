// How much memory the window's list takes for rows that wait: two long clips keep the
// window's two analysis threads busy, then N copies of another clip's path are added, so
// that N rows wait. Prints the resident memory (VmRSS of /proc/self/status) before and
// after. The busy jobs are first let past their learning pairs, whose background model is
// freed afterwards, so that only the rows change the figure. Never run by the tests.
//
// Usage: tremora-rows-bench --busy CLIP --waiting CLIP [--rows N]

#include "MainWindow.h"
#include "OffscreenWindow.h"
#include "Tremora.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QListWidget>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>
#include <cstring>

namespace {

struct Options {
    QString busy;
    QString waiting;
    int rows = 1000;
};

bool parseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const char* name = argv[i];
        const QString value = QString::fromLocal8Bit(argv[i + 1]);
        if (std::strcmp(name, "--busy") == 0)
            options.busy = value;
        else if (std::strcmp(name, "--waiting") == 0)
            options.waiting = value;
        else if (std::strcmp(name, "--rows") == 0)
            options.rows = value.toInt();
        else
            return false;
    }
    return argc % 2 == 1 && !options.busy.isEmpty() && !options.waiting.isEmpty() && options.rows > 0;
}

long residentKilobytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QRegularExpression vmRss(QStringLiteral("^VmRSS:\\s+(\\d+) kB"), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = vmRss.match(QString::fromLatin1(status.readAll()));
    return match.hasMatch() ? match.captured(1).toLong() : -1;
}

void spinEvents(int milliseconds)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
}

const Tremora* jobAt(const QListWidget& list, int row)
{
    return dynamic_cast<const Tremora*>(list.item(row));
}

int stateAt(const QListWidget& list, int row)
{
    const Tremora* job = jobAt(list, row);
    return job ? job->m_state.load() : -1;
}

int percentAt(const QListWidget& list, int row)
{
    const Tremora* job = jobAt(list, row);
    if (!job)
        return -1;
    const QRegularExpressionMatch match = QRegularExpression(QStringLiteral("\\.\\.\\. (\\d+)%\\)$")).match(job->text());
    return match.hasMatch() ? match.captured(1).toInt() : -1;
}

bool busyJobsEnded(const QListWidget& list)
{
    return stateAt(list, 0) >= Tremora::Done || stateAt(list, 1) >= Tremora::Done;
}

// Both busy jobs report at least `percent` of their file.
bool busyJobsPast(const QListWidget& list, int percent)
{
    return percentAt(list, 0) >= percent && percentAt(list, 1) >= percent;
}

bool busyJobsRunningAndRowsWaiting(const QListWidget& list)
{
    for (int row = 0; row < list.count(); ++row) {
        const int expected = row < 2 ? Tremora::Processing : Tremora::Waiting;
        if (stateAt(list, row) != expected)
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parseOptions(argc, argv, options)) {
        std::fprintf(stderr, "Usage: %s --busy CLIP --waiting CLIP [--rows N]\n", argv[0]);
        return 2;
    }
    QTemporaryDir settings;
    OffscreenWindow::prepare(settings);
    QApplication application(argc, argv);
    MainWindow window;
    QListWidget* list = OffscreenWindow::show(window);
    if (!list)
        return 1;

    window.processFile(options.busy);
    window.processFile(options.busy);
    // Past the learning pairs (100 of the busy clip's frames) with a margin.
    constexpr int kLearntPercent = 5;
    constexpr int kBoundMs = 120000;
    QElapsedTimer waited;
    waited.start();
    while (!busyJobsPast(*list, kLearntPercent) && !busyJobsEnded(*list) && waited.elapsed() < kBoundMs)
        spinEvents(50);
    spinEvents(300);
    const long before = residentKilobytes();

    QElapsedTimer adding;
    adding.start();
    for (int i = 0; i < options.rows; ++i)
        window.processFile(options.waiting);
    const qint64 addMs = adding.elapsed();
    // Lay out and paint the longer list.
    spinEvents(700);
    const long after = residentKilobytes();
    const bool valid = busyJobsRunningAndRowsWaiting(*list);

    std::printf("rows bench: %d waiting rows, rss before %ld kB, after %ld kB, growth %.1f MB, adding took %lld ms%s\n",
                options.rows, before, after, static_cast<double>(after - before) / 1024.0,
                static_cast<long long>(addMs), valid ? "" : " (invalid: the busy jobs ended or a row started)");
    window.cancelAll();
    window.close();
    return valid ? 0 : 3;
}
