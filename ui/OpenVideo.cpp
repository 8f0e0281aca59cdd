#include "MainWindow.h"

// Placeholder bodies until opening the source video is written.
void MainWindow::on_mainList_itemDoubleClicked(QListWidgetItem*) {}
void MainWindow::on_actionOpenVideoFile_triggered() {}
void MainWindow::openVideo(const Tremora&) {}
