#include "MainWindow.h"
#include "TestSupport.h"
#include "Tremora.h"
#include "UiTestSupport.h"

#include <QtTest>

#include <QAction>
#include <QListWidget>
#include <QPushButton>
#include <QSettings>

#include <csignal>
#include <memory>
#include <sys/resource.h>

using namespace UiTestSupport;

namespace {

constexpr int kJobTimeoutMs = 60000;
const QString kJpegFilter = QStringLiteral("JPEG image (*.jpg *.jpeg)");
const QString kPngFilter = QStringLiteral("PNG image (*.png)");
const QString kBmpFilter = QStringLiteral("BMP image (*.bmp)");

QString settingValue(const QString& key)
{
    return QSettings().value(key).toString();
}

bool isPng(const QString& path)
{
    return TestSupport::readFile(path).startsWith("\x89PNG\r\n\x1a\n");
}

bool isJpeg(const QString& path)
{
    return TestSupport::readFile(path).startsWith("\xff\xd8\xff");
}

bool isBmp(const QString& path)
{
    return TestSupport::readFile(path).startsWith("BM");
}

QStringList entriesOf(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
}

bool sameImage(const QString& path, const QImage& expected)
{
    const QImage saved(path);
    return !expected.isNull() && !saved.isNull()
           && saved.convertToFormat(expected.format()) == expected;
}

// True for a map of the grey test scene once its background is learnt: before, the job's map
// lies on black.
bool hasLearntBackground(const QImage& map)
{
    return !map.isNull() && map.pixel(0, 0) != qRgb(0, 0, 0);
}

// Limits the size of any file this process writes, as a full disk would; writes beyond it
// fail with EFBIG instead of killing the process. The old limit comes back on destruction.
class FileSizeLimit {
public:
    FileSizeLimit() { getrlimit(RLIMIT_FSIZE, &m_saved); }
    ~FileSizeLimit() { lift(); }
    void impose(rlim_t bytes)
    {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limited = m_saved;
        limited.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limited);
    }
    void lift() { setrlimit(RLIMIT_FSIZE, &m_saved); }

private:
    rlimit m_saved{};
};

} // namespace

class MapExportTest : public WindowTestCase {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void firstExportProposesTheRootFolderAndOffersJpegFirst();
    void cancellingTheSaveDialogStoresAndWritesNothing();
    void savedPngEqualsTheJobsMapPixelForPixel();
    void fileNameNotFilterDecidesTheFormat();
    void failedSaveGoesOnWithTheNextSelectedEntry();
    void nameWithoutSuffixStoresAnEmptyExtensionAndFails();
    void baseNameEndsAtTheFirstDot();
    void jobsSharingABaseNameMeetTheOverwritePrompt();
    void singleEntrySaveAllUsesTheSaveDialogAndKeepsItSelected();
    void emptyListSaveAllShowsFolderDialogStoresFolderWritesNothing();
    void cancellingTheFolderDialogStoresAndWritesNothing();
    void rootFolderTargetsBeginWithTwoSlashes();
    void yesToAllWritesAllFiveExistingFilesWithOnePrompt();
    void yesAsksAgainAtTheNextExistingFile();
    void noThenCancelWritesNothingAndEndsTheRunAtTheSecondEntry();
    void closingThePromptEndsTheRunLikeCancel();
    void failingThirdWriteShowsOneErrorAndEndsTheRun();
    void processingJobSavesItsMapAsItStands();
    void waitingJobFailsInSaveMapAndIsSkippedInSaveAll();
    void saveAllUsesTheExtensionOfTheLastSingleExport();
    void failedWriteLeavesTheExistingFileAsItWas();
    void fullDiskLeavesTheExistingFileAndNoTemporaryFile();
    void saveAllButtonActsLikeTheAction();

private:
    void addJobs(const QStringList& names, const QString& clip = QString());
    QString outFolder(const QString& name) const;
    QImage mapOfRow(int row) const { return jobAt(m_list, row)->getResult(); }

    QTemporaryDir m_clips;
    QString m_smallClip;
    QString m_longClip;
    QString m_wideClip;
};

void MapExportTest::initTestCase()
{
    prepareApplication();
    QVERIFY(m_clips.isValid());
    m_smallClip = m_clips.filePath("small.mkv");
    m_longClip = m_clips.filePath("long.mkv");
    m_wideClip = m_clips.filePath("wide.mkv");
    QVERIFY(writeSmallClip(m_smallClip));
    // Long enough to keep a job busy for several seconds while a test saves its map.
    QVERIFY(writeStillClip(m_longClip, 320, 240, 20000));
    QVERIFY(writeStillClip(m_wideClip, 160, 120, 4));
}

void MapExportTest::init()
{
    QVERIFY(openWindow());
    QVERIFY(QDir().mkpath(m_dir->filePath("videos")));
}

void MapExportTest::cleanup()
{
    closeWindow();
}

// Copies `clip` (the small one by default) under each name into videos/, adds the copies in
// order and waits until every job has finished.
void MapExportTest::addJobs(const QStringList& names, const QString& clip)
{
    for (const QString& name : names) {
        const QString path = m_dir->filePath("videos/" + name);
        QDir().mkpath(QFileInfo(path).absolutePath());
        QVERIFY(QFile::copy(clip.isEmpty() ? m_smallClip : clip, path));
        m_window->processFile(path);
    }
    QTRY_VERIFY_WITH_TIMEOUT(allFinished(m_list), kJobTimeoutMs);
}

QString MapExportTest::outFolder(const QString& name) const
{
    const QString folder = m_dir->filePath(name);
    QDir().mkpath(folder);
    return folder;
}

void MapExportTest::firstExportProposesTheRootFolderAndOffersJpegFirst()
{
    addJobs({"clip.mp4"});
    ModalScript script({cancelFileDialog()});
    action(*m_window, "actionSaveMap")->trigger();

    QCOMPARE(script.seen().size(), 1);
    const SeenDialog& dialog = script.seen().first();
    QCOMPARE(dialog.title, QStringLiteral("Save tremora image as..."));
    QCOMPARE(dialog.parent, nullptr);
    QCOMPARE(dialog.acceptMode, QFileDialog::AcceptSave);
    QVERIFY(!dialog.options.testFlag(QFileDialog::DontConfirmOverwrite));
    QCOMPARE(dialog.selectedFiles, QStringList{"/clip.jpg"});
    QCOMPARE(dialog.directory, QStringLiteral("/"));
    QCOMPARE(dialog.nameFilters, (QStringList{kJpegFilter, kPngFilter, kBmpFilter}));
    QCOMPARE(dialog.selectedNameFilter, kJpegFilter);
}

void MapExportTest::cancellingTheSaveDialogStoresAndWritesNothing()
{
    addJobs({"clip.mp4"});
    const QString out = outFolder("out");
    QSettings().setValue("last_export_dir", out);
    QSettings().setValue("last_export_ext", "png");
    QSettings().setValue("last_export_filter", kPngFilter);

    ModalScript script({cancelFileDialog()});
    action(*m_window, "actionSaveMap")->trigger();

    QCOMPARE(script.seen().size(), 1);
    QCOMPARE(script.seen().first().selectedFiles, QStringList{out + "/clip.png"});
    QCOMPARE(script.seen().first().selectedNameFilter, kPngFilter);
    QCOMPARE(settingValue("last_export_dir"), out);
    QCOMPARE(settingValue("last_export_ext"), QStringLiteral("png"));
    QCOMPARE(settingValue("last_export_filter"), kPngFilter);
    QCOMPARE(entriesOf(out), QStringList());
}

void MapExportTest::savedPngEqualsTheJobsMapPixelForPixel()
{
    addJobs({"clip.mp4"});
    const QString target = outFolder("out") + "/map.png";
    ModalScript script({acceptFileDialogWithFilter(target, kPngFilter)});
    action(*m_window, "actionSaveMap")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 1);
    QVERIFY(isPng(target));
    QVERIFY(sameImage(target, mapOfRow(0)));
    QCOMPARE(settingValue("last_export_dir"), m_dir->filePath("out"));
    QCOMPARE(settingValue("last_export_ext"), QStringLiteral("png"));
    QCOMPARE(settingValue("last_export_filter"), kPngFilter);
}

void MapExportTest::fileNameNotFilterDecidesTheFormat()
{
    addJobs({"first.mp4", "second.mp4", "third.mp4"});
    m_list->clearSelection();
    m_list->item(0)->setSelected(true);
    m_list->item(2)->setSelected(true);
    const QString out = outFolder("out");
    ModalScript script({acceptFileDialogWithFilter(out + "/first.bmp", kPngFilter),
                        acceptFileDialog(out + "/third.JPG")});
    action(*m_window, "actionSaveMap")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().at(0).selectedFiles, QStringList{"/first.jpg"});
    // The filter chosen in the first dialog is offered again in the second.
    QCOMPARE(script.seen().at(1).selectedNameFilter, kPngFilter);
    QVERIFY(isBmp(out + "/first.bmp"));
    QVERIFY(sameImage(out + "/first.bmp", mapOfRow(0)));
    QVERIFY(isJpeg(out + "/third.JPG"));
    QCOMPARE(entriesOf(out), (QStringList{"first.bmp", "third.JPG"}));
    QCOMPARE(settingValue("last_export_ext"), QStringLiteral("JPG"));
}

void MapExportTest::failedSaveGoesOnWithTheNextSelectedEntry()
{
    addJobs({"first.mp4", "second.mp4"});
    m_list->selectAll();
    const QString missing = m_dir->filePath("missing/first.png");
    const QString out = outFolder("out");
    QString rememberedAtSecondDialog;
    ModalScript script({acceptFileDialog(missing), clickButton(QMessageBox::Ok),
                        {"QFileDialog", [&](QWidget* dialog) {
                             rememberedAtSecondDialog = settingValue("last_export_dir");
                             acceptFileDialog(out + "/second.png").act(dialog);
                         }}});
    action(*m_window, "actionSaveMap")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    const SeenDialog& error = script.seen().at(1);
    QCOMPARE(error.title, QStringLiteral("Error"));
    QCOMPARE(error.text, QStringLiteral("Can't save image file '%1'").arg(missing));
    QCOMPARE(error.icon, QMessageBox::Critical);
    QCOMPARE(error.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
    QCOMPARE(error.parent, nullptr);
    // Left at NoButton, the box makes its first accepting button the default; a default
    // it lacks would leave it none.
    QCOMPARE(error.defaultButton, QMessageBox::Ok);
    QVERIFY(!QFileInfo::exists(m_dir->filePath("missing")));
    // The failed first save was remembered before the second dialog came up.
    QCOMPARE(rememberedAtSecondDialog, m_dir->filePath("missing"));
    QVERIFY(sameImage(out + "/second.png", mapOfRow(1)));
}

void MapExportTest::nameWithoutSuffixStoresAnEmptyExtensionAndFails()
{
    addJobs({"clip.mp4"});
    const QString out = outFolder("out");
    ModalScript failing({acceptFileDialog(out + "/noext"), clickButton(QMessageBox::Ok)});
    action(*m_window, "actionSaveMap")->trigger();

    QCOMPARE(failing.stepsLeft(), 0);
    QCOMPARE(failing.seen().at(1).text, QStringLiteral("Can't save image file '%1'").arg(out + "/noext"));
    QCOMPARE(settingValue("last_export_ext"), QString());
    QCOMPARE(entriesOf(out), QStringList());

    ModalScript next({cancelFileDialog()});
    action(*m_window, "actionSaveMap")->trigger();
    QCOMPARE(next.seen().size(), 1);
    QCOMPARE(next.seen().first().selectedFiles, QStringList{out + "/clip."});
}

void MapExportTest::baseNameEndsAtTheFirstDot()
{
    addJobs({"clip.part1.mp4", "other.mp4"});
    m_list->clearSelection();
    m_list->item(0)->setSelected(true);
    ModalScript proposal({cancelFileDialog()});
    action(*m_window, "actionSaveMap")->trigger();
    QCOMPARE(proposal.seen().size(), 1);
    QCOMPARE(proposal.seen().first().selectedFiles, QStringList{"/clip.jpg"});

    const QString out = outFolder("out");
    ModalScript saveAll({acceptFileDialog(out)});
    action(*m_window, "actionSaveAllMaps")->trigger();
    QCOMPARE(saveAll.unexpected(), 0);
    QCOMPARE(entriesOf(out), (QStringList{"clip.jpg", "other.jpg"}));
    QVERIFY(isJpeg(out + "/clip.jpg"));
}

void MapExportTest::jobsSharingABaseNameMeetTheOverwritePrompt()
{
    addJobs({"a.mp4", "a.avi"});
    QSettings().setValue("last_export_ext", "png");
    const QString out = outFolder("out");
    ModalScript script({acceptFileDialog(out), clickButton(QMessageBox::No)});
    action(*m_window, "actionSaveAllMaps")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 2);
    const SeenDialog& prompt = script.seen().at(1);
    QCOMPARE(prompt.title, QStringLiteral("Overwrite file?"));
    QCOMPARE(prompt.text, QStringLiteral("File '%1' exists. Overwrite it?").arg(out + "/a.png"));
    QCOMPARE(prompt.icon, QMessageBox::Information);
    QCOMPARE(int(prompt.buttons), 0x41C000);
    QCOMPARE(prompt.defaultButton, QMessageBox::Yes);
    QCOMPARE(prompt.parent, m_window.get());
    QCOMPARE(entriesOf(out), QStringList{"a.png"});
    QVERIFY(sameImage(out + "/a.png", mapOfRow(0)));
}

void MapExportTest::singleEntrySaveAllUsesTheSaveDialogAndKeepsItSelected()
{
    addJobs({"only.mp4"});
    m_list->clearSelection();
    const QString target = outFolder("out") + "/only.png";
    ModalScript script({acceptFileDialog(target)});
    action(*m_window, "actionSaveAllMaps")->trigger();

    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 1);
    QCOMPARE(script.seen().first().acceptMode, QFileDialog::AcceptSave);
    QCOMPARE(script.seen().first().title, QStringLiteral("Save tremora image as..."));
    QVERIFY(sameImage(target, mapOfRow(0)));
    QCOMPARE(selectedRows(m_list), QList<int>{0});
    QVERIFY(!QSettings().contains("save_all_maps_dir"));
}

void MapExportTest::emptyListSaveAllShowsFolderDialogStoresFolderWritesNothing()
{
    const QString out = outFolder("out");
    ModalScript script({acceptFileDialog(out)});
    QVERIFY(QMetaObject::invokeMethod(m_window.get(), "on_actionSaveAllMaps_triggered"));

    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 1);
    const SeenDialog& dialog = script.seen().first();
    QCOMPARE(dialog.title, QStringLiteral("Save All Maps..."));
    QCOMPARE(dialog.parent, m_window.get());
    QVERIFY(dialog.options.testFlag(QFileDialog::ShowDirsOnly));
    QCOMPARE(settingValue("save_all_maps_dir"), out);
    QCOMPARE(entriesOf(out), QStringList());
}

void MapExportTest::cancellingTheFolderDialogStoresAndWritesNothing()
{
    addJobs({"a.mp4", "b.mp4"});
    const QString start = outFolder("start");
    QSettings().setValue("save_all_maps_dir", start);
    ModalScript script({cancelFileDialog()});
    action(*m_window, "actionSaveAllMaps")->trigger();

    QCOMPARE(script.seen().size(), 1);
    QCOMPARE(script.seen().first().directory, start);
    QCOMPARE(settingValue("save_all_maps_dir"), start);
    QCOMPARE(entriesOf(start), QStringList());
}

void MapExportTest::rootFolderTargetsBeginWithTwoSlashes()
{
    // An "extension" that names a missing folder makes the write fail before anything is
    // created, so the target the run chose shows in the error box without writing into
    // the root folder.
    const QString extension = QStringLiteral("no-such-folder/png");
    addJobs({"clip.mp4", "other.mp4"});
    QSettings().setValue("last_export_ext", extension);
    ModalScript script({acceptFileDialog("/"), clickButton(QMessageBox::Ok)});
    action(*m_window, "actionSaveAllMaps")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(settingValue("save_all_maps_dir"), QStringLiteral("/"));
    QCOMPARE(script.seen().size(), 2);
    QCOMPARE(script.seen().at(1).text, QStringLiteral("Can't save image file '//clip.%1'").arg(extension));
    QCOMPARE(script.seen().at(1).parent, m_window.get());
    QVERIFY(!QFileInfo::exists("/clip.no-such-folder"));
}

void MapExportTest::yesToAllWritesAllFiveExistingFilesWithOnePrompt()
{
    const QStringList names{"v1", "v2", "v3", "v4", "v5"};
    addJobs({"v1.mp4", "v2.mp4", "v3.mp4", "v4.mp4", "v5.mp4"});
    QSettings().setValue("last_export_ext", "png");
    const QString out = outFolder("out");
    for (const QString& name : names)
        QVERIFY(TestSupport::writeFile(out + "/" + name + ".png", "old"));

    ModalScript script({acceptFileDialog(out), clickButton(QMessageBox::YesToAll)});
    action(*m_window, "actionSaveAllMaps")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 2);
    QCOMPARE(script.seen().at(1).text, QStringLiteral("File '%1' exists. Overwrite it?").arg(out + "/v1.png"));
    for (int row = 0; row < names.size(); ++row)
        QVERIFY2(sameImage(out + "/" + names.at(row) + ".png", mapOfRow(row)), qPrintable(names.at(row)));
}

void MapExportTest::yesAsksAgainAtTheNextExistingFile()
{
    addJobs({"v1.mp4", "v2.mp4"});
    QSettings().setValue("last_export_ext", "png");
    const QString out = outFolder("out");
    QVERIFY(TestSupport::writeFile(out + "/v1.png", "old"));
    QVERIFY(TestSupport::writeFile(out + "/v2.png", "old"));

    ModalScript script({acceptFileDialog(out), clickButton(QMessageBox::Yes), clickButton(QMessageBox::Yes)});
    action(*m_window, "actionSaveAllMaps")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 3);
    QCOMPARE(script.seen().at(2).text, QStringLiteral("File '%1' exists. Overwrite it?").arg(out + "/v2.png"));
    QVERIFY(sameImage(out + "/v1.png", mapOfRow(0)));
    QVERIFY(sameImage(out + "/v2.png", mapOfRow(1)));
}

void MapExportTest::noThenCancelWritesNothingAndEndsTheRunAtTheSecondEntry()
{
    const QStringList names{"v1", "v2", "v3", "v4", "v5"};
    addJobs({"v1.mp4", "v2.mp4", "v3.mp4", "v4.mp4", "v5.mp4"});
    const QString out = outFolder("out");
    for (const QString& name : names)
        QVERIFY(TestSupport::writeFile(out + "/" + name + ".jpg", "old"));

    ModalScript script({acceptFileDialog(out), clickButton(QMessageBox::No), clickButton(QMessageBox::Cancel)});
    action(*m_window, "actionSaveAllMaps")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 3);
    QCOMPARE(script.seen().at(1).text, QStringLiteral("File '%1' exists. Overwrite it?").arg(out + "/v1.jpg"));
    QCOMPARE(script.seen().at(2).text, QStringLiteral("File '%1' exists. Overwrite it?").arg(out + "/v2.jpg"));
    for (const QString& name : names)
        QCOMPARE(TestSupport::readFile(out + "/" + name + ".jpg"), QByteArray("old"));
}

void MapExportTest::closingThePromptEndsTheRunLikeCancel()
{
    addJobs({"v1.mp4", "v2.mp4"});
    const QString out = outFolder("out");
    QVERIFY(TestSupport::writeFile(out + "/v1.jpg", "old"));
    QVERIFY(TestSupport::writeFile(out + "/v2.jpg", "old"));

    ModalScript script({acceptFileDialog(out), closeMessageBox()});
    action(*m_window, "actionSaveAllMaps")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 2);
    QCOMPARE(TestSupport::readFile(out + "/v1.jpg"), QByteArray("old"));
    QCOMPARE(TestSupport::readFile(out + "/v2.jpg"), QByteArray("old"));
}

void MapExportTest::failingThirdWriteShowsOneErrorAndEndsTheRun()
{
    addJobs({"v1.mp4", "v2.mp4", "v3.mp4", "v4.mp4", "v5.mp4"});
    QSettings().setValue("last_export_ext", "png");
    const QString out = outFolder("out");
    // A folder in the third target's place: the prompt appears, and the write then fails.
    QVERIFY(QDir().mkpath(out + "/v3.png"));

    ModalScript script({acceptFileDialog(out), clickButton(QMessageBox::Yes), clickButton(QMessageBox::Ok)});
    action(*m_window, "actionSaveAllMaps")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 3);
    const SeenDialog& error = script.seen().at(2);
    QCOMPARE(error.title, QStringLiteral("Error"));
    QCOMPARE(error.text, QStringLiteral("Can't save image file '%1'").arg(out + "/v3.png"));
    QCOMPARE(error.icon, QMessageBox::Critical);
    QCOMPARE(error.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
    QCOMPARE(error.parent, m_window.get());
    // Left at NoButton, the box makes its first accepting button the default; a default
    // it lacks would leave it none.
    QCOMPARE(error.defaultButton, QMessageBox::Ok);
    QVERIFY(sameImage(out + "/v1.png", mapOfRow(0)));
    QVERIFY(sameImage(out + "/v2.png", mapOfRow(1)));
    QCOMPARE(entriesOf(out), (QStringList{"v1.png", "v2.png", "v3.png"}));
    QVERIFY(QFileInfo(out + "/v3.png").isDir());
}

void MapExportTest::processingJobSavesItsMapAsItStands()
{
    const QString path = m_dir->filePath("videos/long.mkv");
    QVERIFY(QFile::copy(m_longClip, path));
    m_window->processFile(path);
    Tremora* job = jobAt(m_list, 0);
    // The first map, shown as the job starts, lies on a black background that is not learnt
    // yet; from the first pair's background on, a still scene gives the same picture at every
    // refresh.
    QTRY_VERIFY_WITH_TIMEOUT(hasLearntBackground(job->getResult()), kJobTimeoutMs);
    QCOMPARE(stateOf(job), int(Tremora::Processing));

    const QString target = outFolder("out") + "/partial.png";
    ModalScript script({acceptFileDialog(target)});
    action(*m_window, "actionSaveMap")->trigger();
    const QImage current = job->getResult();

    QCOMPARE(stateOf(job), int(Tremora::Processing));
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(QImage(target).size(), QSize(320, 240));
    QVERIFY(sameImage(target, current));
}

void MapExportTest::waitingJobFailsInSaveMapAndIsSkippedInSaveAll()
{
    // Two long jobs take both pool threads, so the third one waits.
    for (const QString& name : {QStringLiteral("busy1.mkv"), QStringLiteral("busy2.mkv")}) {
        QVERIFY(QFile::copy(m_longClip, m_dir->filePath("videos/" + name)));
        m_window->processFile(m_dir->filePath("videos/" + name));
    }
    QVERIFY(QFile::copy(m_smallClip, m_dir->filePath("videos/waiting.mp4")));
    m_window->processFile(m_dir->filePath("videos/waiting.mp4"));
    Tremora* waiting = jobAt(m_list, 2);
    QTRY_VERIFY_WITH_TIMEOUT(!jobAt(m_list, 0)->getResult().isNull() && !jobAt(m_list, 1)->getResult().isNull(),
                             kJobTimeoutMs);
    QCOMPARE(stateOf(waiting), int(Tremora::Waiting));

    m_list->clearSelection();
    waiting->setSelected(true);
    const QString single = outFolder("single") + "/waiting.png";
    ModalScript saveMap({acceptFileDialog(single), clickButton(QMessageBox::Ok)});
    action(*m_window, "actionSaveMap")->trigger();

    QCOMPARE(saveMap.stepsLeft(), 0);
    QCOMPARE(saveMap.unexpected(), 0);
    QCOMPARE(saveMap.seen().at(1).text, QStringLiteral("Can't save image file '%1'").arg(single));
    QCOMPARE(saveMap.seen().at(1).parent, nullptr);
    QCOMPARE(entriesOf(m_dir->filePath("single")), QStringList());
    QCOMPARE(settingValue("last_export_ext"), QStringLiteral("png"));
    QCOMPARE(settingValue("last_export_dir"), m_dir->filePath("single"));

    const QString all = outFolder("all");
    ModalScript saveAll({acceptFileDialog(all)});
    action(*m_window, "actionSaveAllMaps")->trigger();

    QCOMPARE(saveAll.unexpected(), 0);
    QCOMPARE(saveAll.seen().size(), 1);
    QCOMPARE(stateOf(waiting), int(Tremora::Waiting));
    QCOMPARE(entriesOf(all), (QStringList{"busy1.png", "busy2.png"}));
}

void MapExportTest::saveAllUsesTheExtensionOfTheLastSingleExport()
{
    addJobs({"a.mp4", "b.mp4"});
    const QString never = outFolder("never");
    ModalScript first({acceptFileDialog(never)});
    action(*m_window, "actionSaveAllMaps")->trigger();
    QCOMPARE(entriesOf(never), (QStringList{"a.jpg", "b.jpg"}));
    QVERIFY(isJpeg(never + "/a.jpg"));

    m_list->clearSelection();
    m_list->item(0)->setSelected(true);
    ModalScript single({acceptFileDialog(outFolder("single") + "/map.png")});
    action(*m_window, "actionSaveMap")->trigger();
    QCOMPARE(single.unexpected(), 0);

    const QString after = outFolder("after");
    ModalScript second({acceptFileDialog(after)});
    action(*m_window, "actionSaveAllMaps")->trigger();
    QCOMPARE(entriesOf(after), (QStringList{"a.png", "b.png"}));
    QVERIFY(isPng(after + "/a.png"));
    QVERIFY(sameImage(after + "/a.png", mapOfRow(0)));
    QVERIFY(sameImage(after + "/b.png", mapOfRow(1)));

    // A failed single export changes the extension just the same.
    ModalScript failed({acceptFileDialog(m_dir->filePath("missing/map.bmp")), clickButton(QMessageBox::Ok)});
    action(*m_window, "actionSaveMap")->trigger();
    QCOMPARE(failed.stepsLeft(), 0);
    const QString afterFailure = outFolder("after-failure");
    ModalScript third({acceptFileDialog(afterFailure)});
    action(*m_window, "actionSaveAllMaps")->trigger();
    QCOMPARE(entriesOf(afterFailure), (QStringList{"a.bmp", "b.bmp"}));
    QVERIFY(isBmp(afterFailure + "/a.bmp"));
}

void MapExportTest::failedWriteLeavesTheExistingFileAsItWas()
{
    addJobs({"clip.mp4"});
    const QString out = outFolder("out");
    const QByteArray precious("precious bytes that must survive");
    QVERIFY(TestSupport::writeFile(out + "/old.xyz", precious));

    // The save dialog itself asks before replacing; the write then fails on the format.
    ModalScript script({acceptFileDialog(out + "/old.xyz"), clickButton(QMessageBox::Yes),
                        clickButton(QMessageBox::Ok)});
    action(*m_window, "actionSaveMap")->trigger();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().at(2).text, QStringLiteral("Can't save image file '%1'").arg(out + "/old.xyz"));
    QCOMPARE(TestSupport::readFile(out + "/old.xyz"), precious);
    QCOMPARE(entriesOf(out), QStringList{"old.xyz"});
}

void MapExportTest::fullDiskLeavesTheExistingFileAndNoTemporaryFile()
{
    // BMP: a fixed 57,654 bytes for 160x120, well past the limit below, and a writer that
    // reports a failed write by its return value.
    addJobs({"wide.mkv"}, m_wideClip);
    const QString out = outFolder("out");
    const QString target = out + "/map.bmp";
    const QByteArray precious("an older map that must survive");
    QVERIFY(TestSupport::writeFile(target, precious));

    // Room for the settings file but not for the map: the write runs out of space midway.
    FileSizeLimit limit;
    ModalScript script({acceptFileDialogAfter(target, [&limit] { limit.impose(4096); }),
                        clickButton(QMessageBox::Yes), clickButton(QMessageBox::Ok)});
    action(*m_window, "actionSaveMap")->trigger();
    limit.lift();

    QCOMPARE(script.stepsLeft(), 0);
    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().at(2).text, QStringLiteral("Can't save image file '%1'").arg(target));
    QCOMPARE(TestSupport::readFile(target), precious);
    QCOMPARE(entriesOf(out), QStringList{"map.bmp"});

    // The same map fits once the limit is gone, so it was the space that failed.
    ModalScript again({acceptFileDialog(target), clickButton(QMessageBox::Yes)});
    action(*m_window, "actionSaveMap")->trigger();
    QCOMPARE(again.unexpected(), 0);
    QVERIFY(QFileInfo(target).size() > 4096);
    QVERIFY(sameImage(target, mapOfRow(0)));
}

void MapExportTest::saveAllButtonActsLikeTheAction()
{
    addJobs({"a.mp4", "b.mp4"});
    const QString out = outFolder("out");
    ModalScript script({acceptFileDialog(out)});
    m_window->findChild<QPushButton*>("pushButtonSaveAllMap")->click();

    QCOMPARE(script.unexpected(), 0);
    QCOMPARE(script.seen().size(), 1);
    QCOMPARE(script.seen().first().title, QStringLiteral("Save All Maps..."));
    QCOMPARE(settingValue("save_all_maps_dir"), out);
    QCOMPARE(entriesOf(out), (QStringList{"a.jpg", "b.jpg"}));
}

QTEST_MAIN(MapExportTest)
#include "MapExportTest.moc"
