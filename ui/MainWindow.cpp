#include "MainWindow.h"

#include "Tremora.h"
#include "Utils.h"
#include "Version.h"
#include "ui_MainWindow.h"

#include <QCoreApplication>
#include <QItemSelectionModel>
#include <QResizeEvent>
#include <QSet>
#include <QVector>

#include <algorithm>
#include <climits>

namespace {

const QString kGeometryName = QStringLiteral("main_window");
const QSize kThumbnailSize(1280, 720);
constexpr int kRowUpdateInterval = 300;
constexpr int kTickMs = 1000;
constexpr int kStatusMessageMs = 1000;
constexpr int kMaxAnalysisThreads = 2;
constexpr int kIconSizeFloor = -500;

Tremora* jobAt(const QListWidget* list, int row)
{
    return static_cast<Tremora*>(list->item(row));
}

// Waiting and Processing; compared unsigned so that a negative state never counts.
bool isActive(const Tremora* job)
{
    return job->m_cancel == 0 && static_cast<unsigned>(job->m_state.load()) < Tremora::Done;
}

bool isFinal(const Tremora* job)
{
    return static_cast<unsigned>(job->m_state.load()) >= Tremora::Done;
}

// Truncated toward zero; clamped because a float beyond int's range has no int value.
int truncatedRate(float rate)
{
    return rate >= static_cast<float>(INT_MAX) ? INT_MAX : static_cast<int>(rate);
}

} // namespace

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent)
    , ui(new Ui_MainWindow)
    , threadPool()
    , timer()
    , removedJobs()
{
    // Jobs change their rows from pool threads; the model's change notification carries
    // the roles as QVector<int> and must be queued to the view.
    qRegisterMetaType<QVector<int>>();
    ui->setupUi(this);
    connect(&timer, &QTimer::timeout, this, &MainWindow::updatePeriodic);
    timer.start(kTickMs);
    threadPool.setMaxThreadCount(kMaxAnalysisThreads);
    Utils::updateWindowGeometry(this, true, kGeometryName);
    update();
    setWindowTitle(windowTitle() + QLatin1Char(' ') + QString::fromUtf8(Version::version));
    ui->mainList->installEventFilter(this);
    ui->mainList->setAcceptDrops(true);
}

// Geometry first, so it is kept even if the wait below is long. Then stop everything:
// flag every job, drop the ones still queued (they never start) and wait for the running
// ones to reach their next poll of the flag. Only then may rows and jobs be destroyed.
MainWindow::~MainWindow()
{
    Utils::updateWindowGeometry(this, false, kGeometryName);
    // The queue goes before the flags: a running job that saw its flag and ended in between
    // would otherwise free its thread for a waiting job, which must never start now.
    threadPool.clear();
    for (int row = 0; row < ui->mainList->count(); ++row)
        jobAt(ui->mainList, row)->m_cancel = -1;
    update();
    threadPool.waitForDone(-1);
    // No pass runs any more, so removed jobs can go whatever their state; this includes
    // queued ones that the clear above dropped before they ever ran.
    qDeleteAll(removedJobs);
    removedJobs.clear();
    delete ui;
}

void MainWindow::processFile(const QString& path)
{
    auto* job = new Tremora(path, kThumbnailSize, kRowUpdateInterval);
    // The list, and after removal this window, owns the job; the pool must never delete it.
    job->setAutoDelete(false);
    ui->mainList->insertItem(ui->mainList->count(), job);
    if (job->listWidget())
        job->setSelected(true);
    // One priority for all: queued jobs start in the order they were added.
    threadPool.start(job, 0);
    update();
}

void MainWindow::processFiles(const QStringList& paths)
{
    for (const QString& path : paths)
        processFile(path);
}

// Runs on every selection change, so it stays cheap for long lists: the selection is asked
// once, and the walk for an active job stops at the first one.
void MainWindow::update()
{
    const QListWidget* list = ui->mainList;
    const bool anySelected = list->selectionModel()->hasSelection();
    const bool notEmpty = list->count() > 0;
    bool anyActive = false;
    for (int row = 0; row < list->count() && !anyActive; ++row)
        anyActive = isActive(jobAt(list, row));

    ui->actionRemoveSelected->setEnabled(anySelected);
    ui->actionSaveMap->setEnabled(anySelected);
    ui->actionOpenVideoFile->setEnabled(anySelected);
    ui->actionRemoveAll->setEnabled(notEmpty);
    ui->actionSaveAllMaps->setEnabled(notEmpty);
    ui->pushButtonSaveAllMap->setEnabled(notEmpty);
    ui->actionCancelProcessing->setEnabled(anyActive);
    ui->pushButtonCancel->setEnabled(anyActive);
}

// Acts on every row, selected or not. Running jobs stop at their next poll; queued ones
// still start in their turn and end canceled at once.
void MainWindow::cancelAll()
{
    for (int row = 0; row < ui->mainList->count(); ++row)
        jobAt(ui->mainList, row)->m_cancel = -1;
    update();
}

void MainWindow::updatePeriodic()
{
    const float rate = Tremora::globalCounter.getCountPerSecond();
    if (rate > 0) {
        const QString text = tr("Frames per second: %1").arg(truncatedRate(rate));
        ui->statusbar->showMessage(text, kStatusMessageMs);
    }
    reapRemovedJobs();
}

// A removed job may still be running or queued; it is deleted only once its pass has
// recorded a final state, after which the pass touches nothing of it.
void MainWindow::reapRemovedJobs()
{
    int i = 0;
    while (i < removedJobs.size()) {
        Tremora* job = removedJobs.at(i);
        if (isFinal(job)) {
            removedJobs.removeAt(i);
            delete job;
        } else {
            ++i;
        }
    }
}

void MainWindow::on_actionQuit_triggered()
{
    QCoreApplication::quit();
}

void MainWindow::on_pushButtonCancel_clicked()
{
    cancelAll();
}

void MainWindow::on_actionCancelProcessing_triggered()
{
    cancelAll();
}

// The rows leave the list at once; the jobs move to removedJobs until the tick finds them
// finished. Selected items are looked up once, since asking each row is slow on long lists.
void MainWindow::on_actionRemoveSelected_triggered()
{
    QListWidget* list = ui->mainList;
    const QList<QListWidgetItem*> selectedItems = list->selectedItems();
    const QSet<QListWidgetItem*> selected(selectedItems.cbegin(), selectedItems.cend());
    int row = 0;
    while (row < list->count()) {
        Tremora* job = jobAt(list, row);
        if (selected.contains(job)) {
            job->m_cancel = -1;
            list->takeItem(row);
            removedJobs.append(job);
        } else {
            ++row;
        }
    }
    update();
}

void MainWindow::on_actionRemoveAll_triggered()
{
    ui->mainList->selectAll();
    on_actionRemoveSelected_triggered();
}

void MainWindow::on_mainList_itemSelectionChanged()
{
    update();
}

// Thumbnails are as large as the window allows: the view scales each one down to fit.
void MainWindow::resizeEvent(QResizeEvent* event)
{
    const QSize size = event->size();
    ui->mainList->setIconSize(QSize(std::max(size.width(), kIconSizeFloor),
                                    std::max(size.height(), kIconSizeFloor)));
    QWidget::resizeEvent(event);
}
