#include "UiTestSupport.h"

#include "MainWindow.h"
#include "TestSupport.h"
#include "Tremora.h"

#include <QAction>
#include <QApplication>
#include <QFile>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>

#include <utility>

namespace UiTestSupport {

WindowTestCase::WindowTestCase() = default;

WindowTestCase::~WindowTestCase() = default;

void WindowTestCase::prepareApplication()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QCoreApplication::setOrganizationName("tremora");
    QCoreApplication::setApplicationName("tremora");
}

bool WindowTestCase::openWindow()
{
    m_settings = std::make_unique<TestSupport::ScopedSettings>();
    m_dir = std::make_unique<QTemporaryDir>();
    if (!m_dir->isValid())
        return false;
    m_window = std::make_unique<MainWindow>();
    m_list = mainList(*m_window);
    return m_list != nullptr;
}

void WindowTestCase::closeWindow()
{
    m_window.reset();
    m_list = nullptr;
    m_dir.reset();
    m_settings.reset();
}
namespace {

// Matroska whatever the file name says: the reader goes by content, so clips may be named
// .mp4, .mov or .avi freely.
const QStringList kClipOutput = {"-c:v", "ffv1", "-f", "matroska"};

constexpr int kPollIntervalMs = 10;

const ModalScript* activeScript = nullptr;

SeenDialog describe(QWidget* widget)
{
    SeenDialog seen;
    seen.className = QString::fromLatin1(widget->metaObject()->className());
    seen.title = widget->windowTitle();
    seen.parent = widget->parentWidget();
    if (auto* box = qobject_cast<QMessageBox*>(widget)) {
        seen.text = box->text();
        seen.icon = box->icon();
        seen.buttons = box->standardButtons();
        seen.defaultButton = box->defaultButton() ? box->standardButton(box->defaultButton())
                                                  : QMessageBox::NoButton;
    }
    if (auto* dialog = qobject_cast<QFileDialog*>(widget)) {
        seen.fileMode = dialog->fileMode();
        seen.acceptMode = dialog->acceptMode();
        seen.options = dialog->options();
        seen.directory = dialog->directory().absolutePath();
        seen.selectedFiles = dialog->selectedFiles();
        seen.nameFilters = dialog->nameFilters();
        seen.selectedNameFilter = dialog->selectedNameFilter();
    }
    return seen;
}

// Queued, so the watching timer returns first: a dialog that opens another one from inside
// accept() (the save dialog's replace question) is then answered too.
void invokeLater(QObject* target, const char* method)
{
    QMetaObject::invokeMethod(target, method, Qt::QueuedConnection);
}

void typeAndAccept(QWidget* widget, const QString& text, const QString& folder)
{
    auto* dialog = static_cast<QFileDialog*>(widget);
    if (!folder.isEmpty())
        dialog->setDirectory(folder);
    dialog->findChild<QLineEdit*>("fileNameEdit")->setText(text);
    invokeLater(dialog, "accept");
}

} // namespace

bool writeSmallClip(const QString& path)
{
    constexpr int width = 64;
    constexpr int height = 48;
    std::vector<QByteArray> frames;
    for (int i = 0; i < 6; ++i)
        frames.push_back(TestSupport::grayFrame(width, height, i % 2 ? 200 : 20));
    return TestSupport::writeRawClip(path, width, height, frames, kClipOutput);
}

bool writeStillClip(const QString& path, int width, int height, int frames)
{
    // Encoding thousands of frames takes seconds; every ffv1 frame is a key frame, so a
    // short piece repeated by stream copy gives the same clip in a fraction of the time.
    constexpr int pieceFrames = 250;
    const QString source = QStringLiteral("color=c=gray:s=%1x%2:r=25").arg(width).arg(height);
    const QStringList count{"-frames:v", QString::number(frames)};
    if (frames <= pieceFrames)
        return TestSupport::runFfmpeg(QStringList{"-f", "lavfi", "-i", source} + count + kClipOutput + QStringList{path});

    const QString piece = path + ".piece.mkv";
    const QString repeats = QString::number((frames + pieceFrames - 1) / pieceFrames - 1);
    const bool written =
        TestSupport::runFfmpeg(QStringList{"-f", "lavfi", "-i", source, "-frames:v", QString::number(pieceFrames)}
                               + kClipOutput + QStringList{piece})
        && TestSupport::runFfmpeg(QStringList{"-stream_loop", repeats, "-i", piece, "-c", "copy"} + count
                                  + QStringList{"-f", "matroska", path});
    QFile::remove(piece);
    return written;
}

QListWidget* mainList(MainWindow& window)
{
    return window.findChild<QListWidget*>("mainList");
}

QAction* action(MainWindow& window, const char* objectName)
{
    return window.findChild<QAction*>(QString::fromLatin1(objectName));
}

Tremora* jobAt(QListWidget* list, int row)
{
    return static_cast<Tremora*>(list->item(row));
}

int stateOf(Tremora* job)
{
    return job->m_state;
}

bool allFinished(QListWidget* list)
{
    for (int row = 0; row < list->count(); ++row)
        if (stateOf(jobAt(list, row)) < Tremora::Done)
            return false;
    return true;
}

QStringList rowPaths(QListWidget* list)
{
    QStringList paths;
    for (int row = 0; row < list->count(); ++row)
        paths.append(jobAt(list, row)->m_fileInfo.absoluteFilePath());
    return paths;
}

QList<int> selectedRows(QListWidget* list)
{
    QList<int> rows;
    for (int row = 0; row < list->count(); ++row)
        if (list->item(row)->isSelected())
            rows.append(row);
    return rows;
}

ModalStep acceptFileDialog(const QString& text, const QString& folder)
{
    return {"QFileDialog", [text, folder](QWidget* widget) { typeAndAccept(widget, text, folder); }};
}

ModalStep acceptFileDialogWithFilter(const QString& text, const QString& nameFilter)
{
    return {"QFileDialog", [text, nameFilter](QWidget* widget) {
                static_cast<QFileDialog*>(widget)->selectNameFilter(nameFilter);
                typeAndAccept(widget, text, QString());
            }};
}

ModalStep acceptFileDialogAfter(const QString& text, std::function<void()> before)
{
    return {"QFileDialog", [text, before = std::move(before)](QWidget* widget) {
                before();
                typeAndAccept(widget, text, QString());
            }};
}

ModalStep cancelFileDialog()
{
    return {"QFileDialog", [](QWidget* widget) { invokeLater(widget, "reject"); }};
}

ModalStep clickButton(QMessageBox::StandardButton button)
{
    return {"QMessageBox", [button](QWidget* widget) {
                invokeLater(static_cast<QMessageBox*>(widget)->button(button), "click");
            }};
}

ModalStep closeMessageBox()
{
    return {"QMessageBox", [](QWidget* widget) { invokeLater(widget, "close"); }};
}

ModalScript::ModalScript(QList<ModalStep> steps)
    : m_steps(std::move(steps))
{
    m_timer.setInterval(kPollIntervalMs);
    QObject::connect(&m_timer, &QTimer::timeout, [this] { poll(); });
    m_timer.start();
    activeScript = this;
}

ModalScript::~ModalScript()
{
    if (activeScript == this)
        activeScript = nullptr;
}

void ModalScript::poll()
{
    if (activeScript != this)
        return;
    QWidget* widget = QApplication::activeModalWidget();
    if (!widget || !widget->isVisible() || alreadyHandled(widget))
        return;
    m_handled.append(widget);
    m_seen.append(describe(widget));
    if (m_steps.isEmpty() || !widget->inherits(m_steps.first().expectedClass)) {
        ++m_unexpected;
        if (!m_steps.isEmpty())
            m_steps.removeFirst();
        invokeLater(widget, "reject");
        return;
    }
    m_steps.takeFirst().act(widget);
}

bool ModalScript::alreadyHandled(QWidget* widget)
{
    m_handled.removeAll(QPointer<QWidget>());
    for (const QPointer<QWidget>& handled : qAsConst(m_handled))
        if (handled == widget)
            return true;
    return false;
}

} // namespace UiTestSupport
