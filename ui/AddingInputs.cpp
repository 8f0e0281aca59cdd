#include "MainWindow.h"

// Placeholder bodies until adding inputs is written.
void MainWindow::on_actionAddFiles_triggered() {}
void MainWindow::on_actionAddDirectory_triggered() {}
void MainWindow::on_pushButtonAddFiles_clicked() {}
void MainWindow::on_pushButtonAddDirectory_clicked() {}
bool MainWindow::eventFilter(QObject* watched, QEvent* event)
{
    return QMainWindow::eventFilter(watched, event);
}
