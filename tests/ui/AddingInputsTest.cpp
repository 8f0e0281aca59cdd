#include "MainWindow.h"
#include "TestSupport.h"
#include "Tremora.h"
#include "UiTestSupport.h"

#include <QtTest>

#include <QAction>
#include <QApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QListWidget>
#include <QMimeData>
#include <QPushButton>
#include <QSettings>
#include <QStatusBar>

#include <memory>

using namespace UiTestSupport;

namespace {

constexpr int kJobTimeoutMs = 60000;

QString settingValue(const QString& key)
{
    return QSettings().value(key).toString();
}

bool settingExists(const QString& key)
{
    return QSettings().contains(key);
}

std::unique_ptr<QMimeData> urlData(const QList<QUrl>& urls)
{
    auto data = std::make_unique<QMimeData>();
    data->setUrls(urls);
    return data;
}

// Sends a drag entering `target` and then a drop on it, as the list sees them when the
// user drags files over it; returns whether the drag was accepted.
bool dragAndDrop(QWidget* target, const QMimeData* data, bool* dropAccepted = nullptr)
{
    const QPoint centre = target->rect().center();
    QDragEnterEvent enter(centre, Qt::CopyAction | Qt::MoveAction, data, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(target, &enter);
    QDropEvent drop(centre, Qt::CopyAction | Qt::MoveAction, data, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(target, &drop);
    if (dropAccepted)
        *dropAccepted = drop.isAccepted();
    return enter.isAccepted();
}

// Accepts the file dialog with `text` typed in `folder`, noting the paths it returns.
ModalStep acceptCapturing(const QString& text, const QString& folder, QStringList* returned)
{
    return {"QFileDialog", [=](QWidget* widget) {
                QObject::connect(static_cast<QFileDialog*>(widget), &QFileDialog::filesSelected,
                                 [returned](const QStringList& files) { *returned = files; });
                acceptFileDialog(text, folder).act(widget);
            }};
}

// Drags over the window at the point where `over` lies, through the top-level window as
// a drag from another application arrives; the window picks the widget that takes drops.
bool windowDragEnterAccepted(MainWindow& window, QWidget* over)
{
    auto data = urlData({QUrl::fromLocalFile("/tmp/some.mp4")});
    const QPoint where = over->mapTo(&window, over->rect().center());
    QDragEnterEvent enter(where, Qt::CopyAction, data.get(), Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(window.windowHandle(), &enter);
    const bool accepted = enter.isAccepted();
    QDragLeaveEvent leave;
    QCoreApplication::sendEvent(window.windowHandle(), &leave);
    return accepted;
}

} // namespace

class AddingInputsTest : public WindowTestCase {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void cancellingAddFilesAddsNothingAndKeepsLastFiles();
    void addFilesAppendsSelectedRowsInTheDialogsOrderAndStoresTheirFolder();
    void addFilesStoresOnlyTheFirstFilesFolderWithLinksUnresolved();
    void addDirectoryAddsEveryFileOfTheTreeAndStoresTheFolder();
    void addDirectoryOnEmptyFolderStoresTheFolderAndAddsNothing();
    void addDirectoryLeavesOutHiddenEntriesAndLinkedFolders();
    void cancellingAddDirectoryAddsNothingAndKeepsLastDir();
    void addFilesButtonBehavesLikeItsAction();
    void addDirectoryButtonBehavesLikeItsAction();
    void droppingTwoFilesAppendsTwoRowsInUrlOrder();
    void droppingWebLinkAppendsOneFailedRowWithEmptyPath();
    void plainTextDragIsRefusedAndItsDropAddsNothing();
    void droppingFolderAppendsOneFailedRowForTheFolderItself();
    void filterConsumesOnlyDragEnterAndDrop();
    void onlyTheListTakesDrops();

private:
    QString makeClip(const QString& path);

    QString m_clip;
};

void AddingInputsTest::initTestCase()
{
    prepareApplication();
}

void AddingInputsTest::init()
{
    QVERIFY(openWindow());
    m_clip = m_dir->filePath("source.mkv");
    QVERIFY(writeSmallClip(m_clip));
}

void AddingInputsTest::cleanup()
{
    closeWindow();
}

QString AddingInputsTest::makeClip(const QString& path)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile::copy(m_clip, path);
    return path;
}

void AddingInputsTest::cancellingAddFilesAddsNothingAndKeepsLastFiles()
{
    QSettings().setValue("last_files", m_dir->path());
    ModalScript script({cancelFileDialog()});
    action(*m_window, "actionAddFiles")->trigger();

    QCOMPARE(script.seen().size(), 1);
    const SeenDialog& dialog = script.seen().first();
    QCOMPARE(dialog.title, QStringLiteral("Select one or more files to open"));
    QCOMPARE(dialog.parent, m_window.get());
    QCOMPARE(dialog.fileMode, QFileDialog::ExistingFiles);
    QCOMPARE(dialog.directory, m_dir->path());
    // No filter of its own: the dialog offers every file.
    QCOMPARE(dialog.nameFilters, QStringList{QCoreApplication::translate("QFileDialog", "All Files (*)")});
    QCOMPARE(m_list->count(), 0);
    QCOMPARE(settingValue("last_files"), m_dir->path());
}

void AddingInputsTest::addFilesAppendsSelectedRowsInTheDialogsOrderAndStoresTheirFolder()
{
    const QString folder = m_dir->filePath("videos/a");
    const QString x = makeClip(folder + "/x.mp4");
    const QString y = makeClip(folder + "/y.mov");
    QStringList returned;
    ModalScript script({acceptCapturing("\"y.mov\" \"x.mp4\"", folder, &returned)});
    action(*m_window, "actionAddFiles")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    // The dialog lists the typed names in typing order or in its view's order, depending on
    // whether it has read the folder yet; the rows must follow whichever it returned.
    QVERIFY(returned == (QStringList{y, x}) || returned == (QStringList{x, y}));
    QCOMPARE(rowPaths(m_list), returned);
    QCOMPARE(selectedRows(m_list), (QList<int>{0, 1}));
    QCOMPARE(settingValue("last_files"), folder);
    QTRY_VERIFY_WITH_TIMEOUT(allFinished(m_list), kJobTimeoutMs);
    QCOMPARE(stateOf(jobAt(m_list, 0)), int(Tremora::Done));
    QCOMPARE(stateOf(jobAt(m_list, 1)), int(Tremora::Done));
}

void AddingInputsTest::addFilesStoresOnlyTheFirstFilesFolderWithLinksUnresolved()
{
    // Both files lie in linked folders, so whichever comes first, a resolved path differs.
    makeClip(m_dir->filePath("real1/first.mp4"));
    makeClip(m_dir->filePath("real2/second.mp4"));
    const QString link1 = m_dir->filePath("link1");
    const QString link2 = m_dir->filePath("link2");
    QVERIFY(QFile::link(m_dir->filePath("real1"), link1));
    QVERIFY(QFile::link(m_dir->filePath("real2"), link2));

    QStringList returned;
    ModalScript script({acceptCapturing(QStringLiteral("\"first.mp4\" \"%1/second.mp4\"").arg(link2), link1,
                                        &returned)});
    action(*m_window, "actionAddFiles")->trigger();

    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(m_list->count(), 2);
    QCOMPARE(rowPaths(m_list), returned);
    const QString firstFolder = QFileInfo(returned.value(0)).absolutePath();
    QVERIFY2(firstFolder == link1 || firstFolder == link2, qPrintable(firstFolder));
    QCOMPARE(settingValue("last_files"), firstFolder);
}

void AddingInputsTest::addDirectoryAddsEveryFileOfTheTreeAndStoresTheFolder()
{
    const QString folder = m_dir->filePath("tree");
    const QString a = makeClip(folder + "/a.mp4");
    const QString b = makeClip(folder + "/sub/b.avi");
    const QString notes = folder + "/notes.txt";
    QFile file(notes);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("not a video\n");
    file.close();

    ModalScript script({acceptFileDialog(folder)});
    action(*m_window, "actionAddDirectory")->trigger();

    QCOMPARE(script.unexpected(), 0);
    const SeenDialog& dialog = script.seen().first();
    QCOMPARE(dialog.title, QStringLiteral("Select folder to add"));
    QCOMPARE(dialog.parent, m_window.get());
    QVERIFY(dialog.options.testFlag(QFileDialog::ShowDirsOnly));
    QCOMPARE(settingValue("last_dir"), folder);

    QStringList paths = rowPaths(m_list);
    paths.sort();
    QCOMPARE(paths, (QStringList{a, notes, b}));
    QTRY_VERIFY_WITH_TIMEOUT(allFinished(m_list), kJobTimeoutMs);
    for (int row = 0; row < m_list->count(); ++row) {
        Tremora* job = jobAt(m_list, row);
        const int expected = job->m_fileInfo.fileName() == "notes.txt" ? Tremora::Failed : Tremora::Done;
        QCOMPARE(stateOf(job), expected);
    }
}

void AddingInputsTest::addDirectoryOnEmptyFolderStoresTheFolderAndAddsNothing()
{
    const QString folder = m_dir->filePath("empty");
    QVERIFY(QDir().mkpath(folder));
    ModalScript script({acceptFileDialog(folder)});
    action(*m_window, "actionAddDirectory")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(m_list->count(), 0);
    QCOMPARE(settingValue("last_dir"), folder);
}

void AddingInputsTest::addDirectoryLeavesOutHiddenEntriesAndLinkedFolders()
{
    const QString folder = m_dir->filePath("chosen");
    const QString visible = makeClip(folder + "/visible.mp4");
    const QString deep = makeClip(folder + "/sub/deeper/deep.mp4");
    makeClip(folder + "/.hidden.mp4");
    makeClip(folder + "/sub/.hidden-too.mp4");
    makeClip(folder + "/.hidden-folder/inside.mp4");
    makeClip(m_dir->filePath("elsewhere/outside.mp4"));
    QVERIFY(QFile::link(m_dir->filePath("elsewhere"), folder + "/linked-folder"));

    ModalScript script({acceptFileDialog(folder)});
    action(*m_window, "actionAddDirectory")->trigger();

    QCOMPARE(script.unexpected(), 0);
    QStringList paths = rowPaths(m_list);
    paths.sort();
    QCOMPARE(paths, (QStringList{deep, visible}));
}

void AddingInputsTest::cancellingAddDirectoryAddsNothingAndKeepsLastDir()
{
    const QString folder = m_dir->filePath("start");
    makeClip(folder + "/a.mp4");
    QSettings().setValue("last_dir", folder);
    ModalScript script({cancelFileDialog()});
    action(*m_window, "actionAddDirectory")->trigger();

    QCOMPARE(script.seen().size(), 1);
    QCOMPARE(script.seen().first().directory, folder);
    QCOMPARE(m_list->count(), 0);
    QCOMPARE(settingValue("last_dir"), folder);
}

void AddingInputsTest::addFilesButtonBehavesLikeItsAction()
{
    const QString clip = makeClip(m_dir->filePath("button/clip.mp4"));
    ModalScript cancelled({cancelFileDialog()});
    m_window->findChild<QPushButton*>("pushButtonAddFiles")->click();
    QCOMPARE(cancelled.seen().size(), 1);
    QCOMPARE(cancelled.seen().first().title, QStringLiteral("Select one or more files to open"));
    QVERIFY(!settingExists("last_files"));
    QCOMPARE(m_list->count(), 0);

    ModalScript chosen({acceptFileDialog(clip)});
    m_window->findChild<QPushButton*>("pushButtonAddFiles")->click();
    QCOMPARE(chosen.unexpected(), 0);
    QCOMPARE(rowPaths(m_list), QStringList{clip});
    QCOMPARE(settingValue("last_files"), m_dir->filePath("button"));
}

void AddingInputsTest::addDirectoryButtonBehavesLikeItsAction()
{
    const QString folder = m_dir->filePath("button");
    const QString clip = makeClip(folder + "/clip.mp4");
    ModalScript cancelled({cancelFileDialog()});
    m_window->findChild<QPushButton*>("pushButtonAddDirectory")->click();
    QCOMPARE(cancelled.seen().size(), 1);
    QCOMPARE(cancelled.seen().first().title, QStringLiteral("Select folder to add"));
    QVERIFY(!settingExists("last_dir"));
    QCOMPARE(m_list->count(), 0);

    ModalScript chosen({acceptFileDialog(folder)});
    m_window->findChild<QPushButton*>("pushButtonAddDirectory")->click();
    QCOMPARE(chosen.unexpected(), 0);
    QCOMPARE(rowPaths(m_list), QStringList{clip});
    QCOMPARE(settingValue("last_dir"), folder);
}

void AddingInputsTest::droppingTwoFilesAppendsTwoRowsInUrlOrder()
{
    const QString first = makeClip(m_dir->filePath("drop/zeta.mp4"));
    const QString second = makeClip(m_dir->filePath("drop/alpha.mp4"));
    auto data = urlData({QUrl::fromLocalFile(first), QUrl::fromLocalFile(second)});

    bool dropAccepted = true;
    QVERIFY(dragAndDrop(m_list, data.get(), &dropAccepted));
    QVERIFY(!dropAccepted);
    QCOMPARE(rowPaths(m_list), (QStringList{first, second}));
    QTRY_VERIFY_WITH_TIMEOUT(allFinished(m_list), kJobTimeoutMs);
    QCOMPARE(stateOf(jobAt(m_list, 0)), int(Tremora::Done));
    QCOMPARE(stateOf(jobAt(m_list, 1)), int(Tremora::Done));
}

void AddingInputsTest::droppingWebLinkAppendsOneFailedRowWithEmptyPath()
{
    auto data = urlData({QUrl("https://example.org/clip.mp4")});
    QVERIFY(dragAndDrop(m_list, data.get()));

    QCOMPARE(m_list->count(), 1);
    QCOMPARE(jobAt(m_list, 0)->m_fileInfo.filePath(), QString());
    QTRY_VERIFY_WITH_TIMEOUT(allFinished(m_list), kJobTimeoutMs);
    QCOMPARE(stateOf(jobAt(m_list, 0)), int(Tremora::Failed));
}

void AddingInputsTest::plainTextDragIsRefusedAndItsDropAddsNothing()
{
    QMimeData data;
    data.setText(m_clip);
    QVERIFY(!dragAndDrop(m_list, &data));
    QCOMPARE(m_list->count(), 0);
}

void AddingInputsTest::droppingFolderAppendsOneFailedRowForTheFolderItself()
{
    const QString folder = m_dir->filePath("dropped");
    makeClip(folder + "/inside.mp4");
    auto data = urlData({QUrl::fromLocalFile(folder)});
    QVERIFY(dragAndDrop(m_list, data.get()));

    QCOMPARE(rowPaths(m_list), QStringList{folder});
    QTRY_VERIFY_WITH_TIMEOUT(allFinished(m_list), kJobTimeoutMs);
    QCOMPARE(stateOf(jobAt(m_list, 0)), int(Tremora::Failed));
}

void AddingInputsTest::filterConsumesOnlyDragEnterAndDrop()
{
    QObject* filter = m_window.get();
    QMimeData text;
    text.setText("plain");
    auto urls = urlData({QUrl::fromLocalFile(m_clip)});

    QDragEnterEvent enterWithoutUrls(QPoint(5, 5), Qt::CopyAction, &text, Qt::LeftButton, Qt::NoModifier);
    QVERIFY(filter->eventFilter(m_list, &enterWithoutUrls));
    QVERIFY(!enterWithoutUrls.isAccepted());

    QDragEnterEvent enterWithUrls(QPoint(5, 5), Qt::CopyAction | Qt::LinkAction, urls.get(), Qt::LeftButton,
                                  Qt::NoModifier);
    enterWithUrls.setDropAction(Qt::LinkAction);
    QVERIFY(filter->eventFilter(m_list, &enterWithUrls));
    QVERIFY(enterWithUrls.isAccepted());
    QCOMPARE(enterWithUrls.dropAction(), enterWithUrls.proposedAction());

    QDragMoveEvent move(QPoint(6, 6), Qt::CopyAction, urls.get(), Qt::LeftButton, Qt::NoModifier);
    QVERIFY(!filter->eventFilter(m_list, &move));
    QDragLeaveEvent leave;
    QVERIFY(!filter->eventFilter(m_list, &leave));
    QMouseEvent press(QEvent::MouseButtonPress, QPointF(5, 5), Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
    QVERIFY(!filter->eventFilter(m_list, &press));

    QDropEvent dropWithoutUrls(QPointF(5, 5), Qt::CopyAction, &text, Qt::LeftButton, Qt::NoModifier);
    QVERIFY(filter->eventFilter(m_list, &dropWithoutUrls));
    QCOMPARE(m_list->count(), 0);
    QCOMPARE(dropWithoutUrls.isAccepted(), false);
}

void AddingInputsTest::onlyTheListTakesDrops()
{
    m_window->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));

    QVERIFY(!windowDragEnterAccepted(*m_window, m_window->findChild<QPushButton*>("pushButtonAddFiles")));
    QVERIFY(!windowDragEnterAccepted(*m_window, m_window->findChild<QPushButton*>("pushButtonSaveAllMap")));
    QVERIFY(!windowDragEnterAccepted(*m_window, m_window->statusBar()));
    QVERIFY(windowDragEnterAccepted(*m_window, m_list));
    QCOMPARE(m_list->count(), 0);
}

QTEST_MAIN(AddingInputsTest)
#include "AddingInputsTest.moc"
