#pragma once

#include <QFileDialog>
#include <QList>
#include <QMessageBox>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include <QObject>
#include <QTemporaryDir>

#include <functional>
#include <memory>

class MainWindow;
class QAction;
class QListWidget;
class Tremora;

namespace TestSupport {
class ScopedSettings;
}

// Helpers for the window tests: clips, access to the window's named objects, and a script
// that answers the real modal dialogs a flow opens. Used on the test's (GUI) thread only.
namespace UiTestSupport {

// The common ground of the window tests: before each test function a fresh window with
// settings of its own and an empty temporary folder, dropped again after it.
class WindowTestCase : public QObject {
protected:
    WindowTestCase();
    ~WindowTestCase() override;

    // From initTestCase(): Qt's own dialogs (which the tests can drive) and the program's
    // settings identity.
    static void prepareApplication();
    // From init(); false when the folder cannot be made.
    bool openWindow();
    // From cleanup().
    void closeWindow();

    std::unique_ptr<TestSupport::ScopedSettings> m_settings;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<MainWindow> m_window;
    QListWidget* m_list = nullptr;
};

// A 64x48 ffv1 clip of six frames with motion everywhere, so its job finishes within a
// moment and leaves a coloured map.
bool writeSmallClip(const QString& path);

// A still grey clip of `frames` frames at width x height; long clips keep a job busy.
bool writeStillClip(const QString& path, int width, int height, int frames);

QListWidget* mainList(MainWindow& window);
QAction* action(MainWindow& window, const char* objectName);
Tremora* jobAt(QListWidget* list, int row);
int stateOf(Tremora* job);
bool allFinished(QListWidget* list);
QStringList rowPaths(QListWidget* list); // absolute file path of every row's video
QList<int> selectedRows(QListWidget* list);

// What a modal dialog looked like when it came up.
struct SeenDialog {
    QString className;
    QString title;
    QWidget* parent = nullptr;
    // Message boxes
    QString text;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    QMessageBox::StandardButtons buttons;
    QMessageBox::StandardButton defaultButton = QMessageBox::NoButton;
    // File dialogs
    QFileDialog::FileMode fileMode = QFileDialog::AnyFile;
    QFileDialog::AcceptMode acceptMode = QFileDialog::AcceptOpen;
    QFileDialog::Options options;
    QString directory;
    QStringList selectedFiles;
    QStringList nameFilters;
    QString selectedNameFilter;
};

// One answer to one modal dialog of the expected class.
struct ModalStep {
    const char* expectedClass;
    std::function<void(QWidget*)> act;
};

// Types `text` into the file dialog's name field (a path, or several quoted names relative
// to `folder` when given) and accepts, as a user pressing Enter would.
ModalStep acceptFileDialog(const QString& text, const QString& folder = QString());
// The same after choosing `nameFilter` in the dialog's filter box.
ModalStep acceptFileDialogWithFilter(const QString& text, const QString& nameFilter);
// Runs `before` on the dialog, then accepts it with `text`.
ModalStep acceptFileDialogAfter(const QString& text, std::function<void()> before);
ModalStep cancelFileDialog();
ModalStep clickButton(QMessageBox::StandardButton button);
// Closes a message box the way Escape or its close button does.
ModalStep closeMessageBox();

// Watches QApplication::activeModalWidget() and answers each new modal dialog with the next
// step, recording what it saw. Dialogs beyond the steps, or of an unexpected class, are
// recorded, counted as unexpected and closed, so a wrong flow fails instead of hanging.
// Only the newest script acts: creating one retires the scripts made before it.
class ModalScript {
public:
    explicit ModalScript(QList<ModalStep> steps);
    ~ModalScript();

    const QVector<SeenDialog>& seen() const { return m_seen; }
    int stepsLeft() const { return m_steps.size(); }
    int unexpected() const { return m_unexpected; }

private:
    void poll();
    bool alreadyHandled(QWidget* widget);

    QList<ModalStep> m_steps;
    QVector<SeenDialog> m_seen;
    int m_unexpected = 0;
    // A dialog that opened another one becomes the active modal widget again for a moment
    // while the inner one closes; every dialog is answered once only.
    QList<QPointer<QWidget>> m_handled;
    QTimer m_timer;
};

} // namespace UiTestSupport
