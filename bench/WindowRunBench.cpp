// How long the window takes to analyse one file that it runs alone: the time from adding
// the file to its row reading "done", offscreen. Prints one line with the seconds. Never run
// by the tests.
//
// Usage: tremora-window-bench CLIP

#include "MainWindow.h"
#include "OffscreenWindow.h"
#include "Tremora.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QListWidget>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "Usage: %s CLIP\n", argv[0]);
        return 2;
    }
    QTemporaryDir settings;
    OffscreenWindow::prepare(settings);
    QApplication application(argc, argv);
    MainWindow window;
    QListWidget* list = OffscreenWindow::show(window);
    if (!list)
        return 1;

    QElapsedTimer analysing;
    analysing.start();
    window.processFile(QString::fromLocal8Bit(argv[1]));
    const auto* job = dynamic_cast<const Tremora*>(list->item(0));
    if (!job)
        return 1;
    // The row changes arrive through the event loop, as on screen.
    while (job->m_state.load() < Tremora::Done) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::msleep(1);
    }
    QCoreApplication::processEvents();
    const double seconds = static_cast<double>(analysing.nsecsElapsed()) / 1e9;
    const bool done = job->m_state.load() == Tremora::Done;
    std::printf("window bench: %.3f s from adding the file to %s\n", seconds, done ? "done" : "its end (not done)");
    return done ? 0 : 3;
}
