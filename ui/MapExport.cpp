#include "MainWindow.h"

// Placeholder bodies until map export is written.
void MainWindow::on_actionSaveMap_triggered() {}
void MainWindow::exportMap(Tremora*) {}
void MainWindow::on_actionSaveAllMaps_triggered() {}
void MainWindow::on_pushButtonSaveAllMap_clicked() {}
