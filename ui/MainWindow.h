#pragma once

#include <QList>
#include <QMainWindow>
#include <QThreadPool>
#include <QTimer>

class QListWidgetItem;
class QResizeEvent;
class Tremora;
class Ui_MainWindow;

// The application's only window and the owner of every analysis job. Everything here runs
// on the GUI thread; the jobs themselves run on `threadPool` (at most two at a time).
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    // The one entry for new files: creates a job, appends and selects its row, starts it.
    void processFile(const QString& path);
    void processFiles(const QStringList& paths);

    // Re-evaluates which actions and buttons are enabled; hides QWidget::update on purpose
    // and repaints nothing.
    void update();
    void cancelAll();

public slots:
    void updatePeriodic();

private slots:
    void on_actionAddFiles_triggered();
    void on_actionAddDirectory_triggered();
    void on_actionQuit_triggered();
    void on_pushButtonCancel_clicked();
    void on_mainList_itemDoubleClicked(QListWidgetItem* item);
    void on_actionRemoveSelected_triggered();
    void on_actionRemoveAll_triggered();
    void on_mainList_itemSelectionChanged();
    void on_actionCancelProcessing_triggered();
    void on_actionSaveMap_triggered();
    void on_actionOpenVideoFile_triggered();
    void on_pushButtonSaveAllMap_clicked();
    void on_actionSaveAllMaps_triggered();
    void on_pushButtonAddFiles_clicked();
    void on_pushButtonAddDirectory_clicked();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    // Deletes the removed jobs whose pass has ended; called by the tick.
    void reapRemovedJobs();
    void exportMap(Tremora* job);
    void openVideo(const Tremora& job);

    Ui_MainWindow* ui;
    QThreadPool threadPool;
    QTimer timer;
    QList<Tremora*> removedJobs;
};
