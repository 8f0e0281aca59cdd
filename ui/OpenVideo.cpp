// Hands the videos of the selected entries to the desktop's default application.

#include "MainWindow.h"

#include "Tremora.h"
#include "ui_MainWindow.h"

#include <QDesktopServices>
#include <QMessageBox>
#include <QUrl>

// The double-clicked item is not used: the selection decides, and a plain double click has
// already made that item the selection.
void MainWindow::on_mainList_itemDoubleClicked(QListWidgetItem*)
{
    on_actionOpenVideoFile_triggered();
}

void MainWindow::on_actionOpenVideoFile_triggered()
{
    for (int i = 0; i < ui->mainList->count(); ++i) {
        QListWidgetItem* item = ui->mainList->item(i);
        if (item->listWidget() && item->isSelected())
            openVideo(*static_cast<Tremora*>(item));
    }
}

// Nothing is checked beforehand; whether the file can be opened is the desktop's decision.
void MainWindow::openVideo(const Tremora& job)
{
    const QString path = job.m_fileInfo.absoluteFilePath();
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(path)))
        QMessageBox::critical(nullptr, tr("Error"), tr("Can't open video file '%1'").arg(path));
}
