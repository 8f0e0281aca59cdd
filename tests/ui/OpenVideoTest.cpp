#include "MainWindow.h"
#include "TestSupport.h"
#include "Tremora.h"
#include "UiTestSupport.h"

#include <QtTest>

#include <QAction>
#include <QDesktopServices>
#include <QListWidget>
#include <QUrl>

#include <memory>

using namespace UiTestSupport;

// Stands in for the desktop: QDesktopServices hands it every file URL it is asked to open.
class OpenedUrls : public QObject {
    Q_OBJECT

public:
    QList<QUrl> urls;

public slots:
    void open(const QUrl& url) { urls.append(url); }
};

class OpenVideoTest : public WindowTestCase {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void openActionOpensTheSelectedVideosInListOrder();
    void doubleClickOpensEverySelectedVideoButNotAnUnselectedClickedOne();
    void plainDoubleClickOpensTheClickedVideo();
    void failureShowsTheAbsolutePathAndTheNextEntryIsStillTried();
    void relativePathIsOpenedByItsAbsolutePath();

private:
    void addRows(const QStringList& names);
    QUrl urlOfRow(int row) const;

    OpenedUrls m_opened;
    QString m_clip;
};

void OpenVideoTest::initTestCase()
{
    prepareApplication();
}

void OpenVideoTest::init()
{
    QVERIFY(openWindow());
    m_clip = m_dir->filePath("source.mkv");
    QVERIFY(writeSmallClip(m_clip));
    m_opened.urls.clear();
    QDesktopServices::setUrlHandler("file", &m_opened, "open");
}

void OpenVideoTest::cleanup()
{
    QDesktopServices::unsetUrlHandler("file");
    closeWindow();
}

void OpenVideoTest::addRows(const QStringList& names)
{
    for (const QString& name : names) {
        const QString path = m_dir->filePath(name);
        QVERIFY(QFile::copy(m_clip, path));
        m_window->processFile(path);
    }
    QTRY_VERIFY_WITH_TIMEOUT(allFinished(m_list), 60000);
}

QUrl OpenVideoTest::urlOfRow(int row) const
{
    return QUrl::fromLocalFile(jobAt(m_list, row)->m_fileInfo.absoluteFilePath());
}

void OpenVideoTest::openActionOpensTheSelectedVideosInListOrder()
{
    addRows({"d.mp4", "c.mp4", "b.mp4", "a.mp4"});
    m_list->clearSelection();
    for (int row : {3, 0, 2})
        m_list->item(row)->setSelected(true);

    ModalScript noBoxes({});
    QAction* open = action(*m_window, "actionOpenVideoFile");
    QVERIFY(open->isEnabled());
    open->trigger();

    QCOMPARE(m_opened.urls, (QList<QUrl>{urlOfRow(0), urlOfRow(2), urlOfRow(3)}));
    QCOMPARE(noBoxes.seen().size(), 0);
}

void OpenVideoTest::doubleClickOpensEverySelectedVideoButNotAnUnselectedClickedOne()
{
    addRows({"one.mp4", "two.mp4", "three.mp4", "four.mp4"});
    m_list->clearSelection();
    for (int row : {0, 2, 3})
        m_list->item(row)->setSelected(true);

    emit m_list->itemDoubleClicked(m_list->item(1));

    QCOMPARE(m_opened.urls, (QList<QUrl>{urlOfRow(0), urlOfRow(2), urlOfRow(3)}));
}

void OpenVideoTest::plainDoubleClickOpensTheClickedVideo()
{
    addRows({"first.mp4", "second.mp4", "third.mp4"});
    m_window->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    m_list->scrollToItem(m_list->item(1));
    const QPoint centre = m_list->visualItemRect(m_list->item(1)).center();

    QTest::mouseClick(m_list->viewport(), Qt::LeftButton, Qt::NoModifier, centre);
    QTest::mouseDClick(m_list->viewport(), Qt::LeftButton, Qt::NoModifier, centre);

    QCOMPARE(selectedRows(m_list), QList<int>{1});
    QCOMPARE(m_opened.urls, QList<QUrl>{urlOfRow(1)});
}

void OpenVideoTest::failureShowsTheAbsolutePathAndTheNextEntryIsStillTried()
{
    addRows({"deleted.mp4", "kept.mp4"});
    const QString deleted = jobAt(m_list, 0)->m_fileInfo.absoluteFilePath();
    const QString kept = jobAt(m_list, 1)->m_fileInfo.absoluteFilePath();
    QVERIFY(QFile::remove(deleted));
    m_list->selectAll();

    // Without a handler the request reaches the platform, and the offscreen platform
    // reports that it cannot open documents: every entry fails.
    QDesktopServices::unsetUrlHandler("file");
    ModalScript script({clickButton(QMessageBox::Ok), clickButton(QMessageBox::Ok)});
    action(*m_window, "actionOpenVideoFile")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 2);
    const QStringList paths{deleted, kept};
    for (int i = 0; i < 2; ++i) {
        const SeenDialog& box = script.seen().at(i);
        QCOMPARE(box.title, QStringLiteral("Error"));
        QCOMPARE(box.text, QStringLiteral("Can't open video file '%1'").arg(paths.at(i)));
        QCOMPARE(box.icon, QMessageBox::Critical);
        QCOMPARE(box.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
        QCOMPARE(box.parent, nullptr);
        // Left at NoButton, the box makes its first accepting button the default; a default
        // it lacks would leave it none.
        QCOMPARE(box.defaultButton, QMessageBox::Ok);
    }
}

void OpenVideoTest::relativePathIsOpenedByItsAbsolutePath()
{
    const QString previous = QDir::currentPath();
    QVERIFY(QFile::copy(m_clip, m_dir->filePath("relative.mp4")));
    QVERIFY(QDir::setCurrent(m_dir->path()));
    m_window->processFile("relative.mp4");
    QTRY_VERIFY_WITH_TIMEOUT(allFinished(m_list), 60000);
    action(*m_window, "actionOpenVideoFile")->trigger();
    QVERIFY(QDir::setCurrent(previous));

    QCOMPARE(m_opened.urls, QList<QUrl>{QUrl::fromLocalFile(m_dir->filePath("relative.mp4"))});
}

QTEST_MAIN(OpenVideoTest)
#include "OpenVideoTest.moc"
