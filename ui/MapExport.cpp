// Saving maps: one file per selected entry through a save dialog, or every map at once into
// one folder with its own overwrite prompt. Both flows share the remembered extension, and
// both write through Utils::saveImage, so a failed write never damages an existing file.

#include "MainWindow.h"

#include "ImageFile.h"
#include "Tremora.h"
#include "ui_MainWindow.h"

#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QMessageBox>
#include <QPointer>
#include <QSettings>

namespace {

// Plain concatenation, nothing cleaned up: an empty folder gives a path in the root folder.
QString mapPath(const QString& folder, const Tremora& job, const QString& extension)
{
    return folder + "/" + job.m_fileInfo.baseName() + "." + extension;
}

bool isSelectedEntry(const QListWidgetItem* item)
{
    return item->listWidget() && item->isSelected();
}

enum class OverwriteAnswer { Write, Skip, StopRun };

OverwriteAnswer askOverwrite(QWidget* parent, const QString& target, bool& yesToAll)
{
    const QMessageBox::StandardButton answer = QMessageBox::information(
        parent, MainWindow::tr("Overwrite file?"),
        MainWindow::tr("File '%1' exists. Overwrite it?").arg(target),
        QMessageBox::Yes | QMessageBox::YesToAll | QMessageBox::No | QMessageBox::Cancel,
        QMessageBox::Yes);
    switch (answer) {
    case QMessageBox::Yes:
        return OverwriteAnswer::Write;
    case QMessageBox::YesToAll:
        yesToAll = true;
        return OverwriteAnswer::Write;
    case QMessageBox::Cancel:
        return OverwriteAnswer::StopRun;
    default:
        return OverwriteAnswer::Skip;
    }
}

// Every entry with a map, selected or not. The count is read again at every step because
// the list may change while a prompt is open; a failed write ends the run.
void saveAllMapsInto(QWidget* parent, QListWidget* list, const QString& folder, const QString& extension)
{
    bool yesToAll = false;
    for (int i = 0; i < list->count(); ++i) {
        Tremora& job = *static_cast<Tremora*>(list->item(i));
        const QImage map = job.getResult();
        if (map.isNull())
            continue;
        const QString target = mapPath(folder, job, extension);
        if (QFile::exists(target) && !yesToAll) {
            const OverwriteAnswer answer = askOverwrite(parent, target, yesToAll);
            if (answer == OverwriteAnswer::StopRun)
                return;
            if (answer == OverwriteAnswer::Skip)
                continue;
        }
        if (!Utils::saveImage(map, target)) {
            QMessageBox::critical(parent, MainWindow::tr("Error"),
                                  MainWindow::tr("Can't save image file '%1'").arg(target));
            return;
        }
    }
}

} // namespace

void MainWindow::on_actionSaveMap_triggered()
{
    for (int i = 0; i < ui->mainList->count(); ++i) {
        QListWidgetItem* item = ui->mainList->item(i);
        if (isSelectedEntry(item))
            exportMap(static_cast<Tremora*>(item));
    }
}

void MainWindow::exportMap(Tremora* job)
{
    QSettings settings;
    const QString folder = settings.value("last_export_dir").toString();
    const QString extension = settings.value("last_export_ext", "jpg").toString();
    QString filter = settings.value("last_export_filter").toString();

    // The dialog runs its own event loop, in which a removed job may be deleted.
    const QPointer<Tremora> guardedJob(job);
    const QString fileName = QFileDialog::getSaveFileName(
        nullptr, tr("Save tremora image as..."), mapPath(folder, *job, extension),
        tr("JPEG image (*.jpg *.jpeg);;PNG image (*.png);;BMP image (*.bmp)"), &filter);
    if (fileName.isEmpty())
        return;

    // Remembered before writing, so they hold even when the write fails.
    const QFileInfo chosen(fileName);
    settings.setValue("last_export_dir", chosen.absoluteDir().absolutePath());
    settings.setValue("last_export_ext", chosen.suffix());
    settings.setValue("last_export_filter", filter);
    settings.sync();

    const QImage map = guardedJob ? guardedJob->getResult() : QImage();
    if (!Utils::saveImage(map, fileName))
        QMessageBox::critical(nullptr, tr("Error"), tr("Can't save image file '%1'").arg(fileName));
}

void MainWindow::on_actionSaveAllMaps_triggered()
{
    // A single map always goes through the save dialog, with its own naming.
    if (ui->mainList->count() == 1) {
        ui->mainList->selectAll();
        on_actionSaveMap_triggered();
        return;
    }

    const QString settingName = QStringLiteral("save_all_maps_dir");
    QSettings settings;
    const QString extension = settings.value("last_export_ext", "jpg").toString();
    const QString startFolder = settings.value(settingName).toString();
    const QString folder = QFileDialog::getExistingDirectory(
        this, tr("Save All Maps..."), startFolder, QFileDialog::ShowDirsOnly);
    if (folder.isEmpty())
        return;
    settings.setValue(settingName, folder);
    settings.sync();

    saveAllMapsInto(this, ui->mainList, folder, extension);
}

void MainWindow::on_pushButtonSaveAllMap_clicked()
{
    on_actionSaveAllMaps_triggered();
}
