#include "ReportFolder.h"

#include <QtTest>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace {

bool writeText(const QString& path, const QByteArray& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

QByteArray readText(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

const QByteArray kEarlierReport = QByteArray("<!DOCTYPE html><head>") + ReportFolder::kGeneratorMark + "</head>";

} // namespace

class ReportFolderTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString path(const QString& name) const { return m_dir.filePath(name); }

    QString earlierReport(const QString& name)
    {
        QDir().mkpath(path(name));
        writeText(path(name) + "/index.html", kEarlierReport);
        writeText(path(name) + "/old.txt", "old");
        return path(name);
    }

    // Stages a page and puts it in place; the error.
    static QString publishPage(ReportFolder& folder, const QByteArray& page)
    {
        QString error;
        if (!folder.prepare(&error))
            return error;
        if (!writeText(folder.stagingPath() + "/index.html", page))
            return QStringLiteral("staging not writable");
        return folder.publish();
    }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void aNewOrEmptyFolderIsTaken()
    {
        QVERIFY(ReportFolder::refusal(path("new"), false).isEmpty());
        QVERIFY(QDir().mkpath(path("empty")));
        QVERIFY(ReportFolder::refusal(path("empty"), false).isEmpty());
    }

    void anEarlierReportIsReplacedOnlyWithOverwrite()
    {
        const QString folder = earlierReport("earlier");
        const QString refused = ReportFolder::refusal(folder, false);
        QVERIFY(refused.contains("--overwrite"));
        QVERIFY(refused.contains(folder));
        QVERIFY(ReportFolder::refusal(folder, true).isEmpty());
    }

    void aFolderOfOtherFilesOrAFileIsNeverTaken()
    {
        QVERIFY(QDir().mkpath(path("mine")));
        QVERIFY(writeText(path("mine") + "/index.html", "<html>my own page</html>"));
        QVERIFY(ReportFolder::refusal(path("mine"), true).contains("other files"));
        QVERIFY(writeText(path("plain-file"), "x"));
        QVERIFY(ReportFolder::refusal(path("plain-file"), true).contains("is a file"));
    }

    void publishingPutsTheStagedPageInPlace()
    {
        ReportFolder folder(path("fresh/deeper/report"));
        QCOMPARE(publishPage(folder, kEarlierReport + "new"), QString());
        QCOMPARE(readText(path("fresh/deeper/report/index.html")), kEarlierReport + "new");
        // No staging folder is left beside it.
        QCOMPARE(QDir(path("fresh/deeper")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{"report"});
    }

    void publishingReplacesAnEarlierReportAsAWhole()
    {
        const QString earlier = earlierReport("replaced");
        ReportFolder folder(earlier);
        QCOMPARE(publishPage(folder, kEarlierReport + "second"), QString());
        QCOMPARE(readText(earlier + "/index.html"), kEarlierReport + "second");
        QVERIFY(!QFile::exists(earlier + "/old.txt"));
        QCOMPARE(QDir(m_dir.path()).entryList(QStringList{"*replaced*"}, QDir::AllEntries | QDir::Hidden),
                 QStringList{"replaced"});
    }

    void filesThatAppearedDuringTheRunAreNotReplaced()
    {
        ReportFolder folder(path("raced"));
        QString error;
        QVERIFY(folder.prepare(&error));
        QVERIFY(QDir().mkpath(path("raced")));
        QVERIFY(writeText(path("raced") + "/notes.txt", "keep me"));
        QVERIFY(folder.publish().contains("other files"));
        QCOMPARE(readText(path("raced") + "/notes.txt"), QByteArray("keep me"));
    }

    void aFolderThatCannotBeMadeSaysSo()
    {
        QVERIFY(writeText(path("blocker"), "a file where a folder should be"));
        ReportFolder folder(path("blocker/report"));
        QString error;
        QVERIFY(!folder.prepare(&error));
        QVERIFY(error.contains(path("blocker/report")));
        QVERIFY(!folder.publish().isEmpty());
        QCOMPARE(readText(path("blocker")), QByteArray("a file where a folder should be"));
    }
};

QTEST_GUILESS_MAIN(ReportFolderTest)
#include "ReportFolderTest.moc"
