// The ways files enter the job queue: the Add Files dialog, the recursive folder scan and
// drops on the list. Each one ends in processFile, once per path, in order, unfiltered.

#include "MainWindow.h"

#include <QDir>
#include <QDirIterator>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QMimeData>
#include <QSettings>
#include <QUrl>

namespace {

// Files only, at any depth. Hidden entries and symbolic links to folders are left out
// because neither QDir::Hidden nor FollowSymlinks is given. The order is the file system's.
QStringList filesBelow(const QString& folder)
{
    QStringList paths;
    QDirIterator it(folder, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        paths.append(it.next());
    return paths;
}

// A URL that is not a local file becomes an empty path, which is kept on purpose.
QStringList localPaths(const QList<QUrl>& urls)
{
    QStringList paths;
    for (const QUrl& url : urls)
        paths.append(url.toLocalFile());
    return paths;
}

} // namespace

void MainWindow::on_actionAddFiles_triggered()
{
    QSettings settings;
    const QString startFolder = settings.value("last_files").toString();
    const QStringList paths = QFileDialog::getOpenFileNames(
        this, tr("Select one or more files to open"), startFolder, QString());
    if (paths.isEmpty())
        return;
    settings.setValue("last_files", QFileInfo(paths.first()).absoluteDir().absolutePath());
    for (const QString& path : paths)
        processFile(path);
}

void MainWindow::on_actionAddDirectory_triggered()
{
    QSettings settings;
    const QString startFolder = settings.value("last_dir").toString();
    const QString folder = QFileDialog::getExistingDirectory(
        this, tr("Select folder to add"), startFolder, QFileDialog::ShowDirsOnly);
    if (folder.isEmpty())
        return;
    settings.setValue("last_dir", folder);
    // The whole walk ends before the first job exists, so the scan sees no files of ours.
    const QStringList paths = filesBelow(folder);
    for (const QString& path : paths)
        processFile(path);
}

void MainWindow::on_pushButtonAddFiles_clicked()
{
    on_actionAddFiles_triggered();
}

void MainWindow::on_pushButtonAddDirectory_clicked()
{
    on_actionAddDirectory_triggered();
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event)
{
    switch (event->type()) {
    case QEvent::Drop: {
        const QMimeData* mimeData = static_cast<QDropEvent*>(event)->mimeData();
        if (!mimeData || !mimeData->hasUrls())
            return true;
        // The drop itself is never accepted: the files are taken all the same, and the
        // drag source is told that nothing was moved away from it.
        const QStringList paths = localPaths(mimeData->urls());
        for (const QString& path : paths)
            processFile(path);
        return true;
    }
    case QEvent::DragEnter: {
        auto* dragEnter = static_cast<QDragEnterEvent*>(event);
        const QMimeData* mimeData = dragEnter->mimeData();
        if (mimeData && mimeData->hasUrls())
            dragEnter->acceptProposedAction();
        return true;
    }
    default:
        return QObject::eventFilter(watched, event);
    }
}
