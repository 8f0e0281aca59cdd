#include "OutputFile.h"

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QStringList entries(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System, QDir::Name);
}

} // namespace

class OutputFileTest : public QObject {
    Q_OBJECT

private slots:
    void init();

    void nothingThereNeitherExistsNorDangles();
    void aFileExists();
    void aFolderExists();
    void aLinkToAFileExists();
    void aLinkToNothingDangles();

    void writesTheBytesWhereNothingWas();
    void writesAnEmptyFile();
    void keepsAnExistingFileUnlessAskedToReplaceIt();
    void keepsADanglingLinkUnlessAskedToReplaceIt();
    void replacesAnExistingFileWhenAsked();
    void aMissingFolderFailsAndCreatesNothing();
    void aFailedReplacementLeavesTheOldFileAndNoTemporaryFile();

private:
    QString path(const QString& name) const { return QDir(m_dir->path()).filePath(name); }
    std::unique_ptr<QTemporaryDir> m_dir;
};

void OutputFileTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void OutputFileTest::nothingThereNeitherExistsNorDangles()
{
    QVERIFY(!OutputFile::existsOrDangles(path("missing.png")));
}

void OutputFileTest::aFileExists()
{
    QVERIFY(TestSupport::writeFile(path("map.png"), "old"));
    QVERIFY(OutputFile::existsOrDangles(path("map.png")));
}

void OutputFileTest::aFolderExists()
{
    QVERIFY(QDir(m_dir->path()).mkdir("map.png"));
    QVERIFY(OutputFile::existsOrDangles(path("map.png")));
}

void OutputFileTest::aLinkToAFileExists()
{
    QVERIFY(TestSupport::writeFile(path("target.png"), "old"));
    QVERIFY(QFile::link(path("target.png"), path("map.png")));
    QVERIFY(OutputFile::existsOrDangles(path("map.png")));
}

void OutputFileTest::aLinkToNothingDangles()
{
    QVERIFY(QFile::link(path("gone.png"), path("map.png")));
    QVERIFY(!QFileInfo::exists(path("map.png")));
    QVERIFY(OutputFile::existsOrDangles(path("map.png")));
}

void OutputFileTest::writesTheBytesWhereNothingWas()
{
    QCOMPARE(OutputFile::write(path("table.csv"), "a,b\n1,2\n", false), QString());
    QCOMPARE(TestSupport::readFile(path("table.csv")), QByteArray("a,b\n1,2\n"));
    QCOMPARE(entries(m_dir->path()), QStringList{"table.csv"});
}

void OutputFileTest::writesAnEmptyFile()
{
    QCOMPARE(OutputFile::write(path("empty.js"), QByteArray(), false), QString());
    QVERIFY(QFileInfo(path("empty.js")).isFile());
    QCOMPARE(QFileInfo(path("empty.js")).size(), 0);
}

void OutputFileTest::keepsAnExistingFileUnlessAskedToReplaceIt()
{
    QVERIFY(TestSupport::writeFile(path("clip.json"), "precious"));
    QCOMPARE(OutputFile::write(path("clip.json"), "new", false),
             QStringLiteral("File '%1' exists; not replaced (--overwrite replaces it)").arg(path("clip.json")));
    QCOMPARE(TestSupport::readFile(path("clip.json")), QByteArray("precious"));
    QCOMPARE(entries(m_dir->path()), QStringList{"clip.json"});
}

void OutputFileTest::keepsADanglingLinkUnlessAskedToReplaceIt()
{
    QVERIFY(QFile::link(path("gone.json"), path("clip.json")));
    QCOMPARE(OutputFile::write(path("clip.json"), "new", false),
             QStringLiteral("File '%1' exists; not replaced (--overwrite replaces it)").arg(path("clip.json")));
    QVERIFY(QFileInfo(path("clip.json")).isSymLink());
    QVERIFY(!QFileInfo::exists(path("gone.json")));
    QCOMPARE(entries(m_dir->path()), QStringList{"clip.json"});
}

void OutputFileTest::replacesAnExistingFileWhenAsked()
{
    QVERIFY(TestSupport::writeFile(path("clip.json"), "an older and longer file"));
    QCOMPARE(OutputFile::write(path("clip.json"), "new", true), QString());
    QCOMPARE(TestSupport::readFile(path("clip.json")), QByteArray("new"));
    QCOMPARE(entries(m_dir->path()), QStringList{"clip.json"});
}

void OutputFileTest::aMissingFolderFailsAndCreatesNothing()
{
    QCOMPARE(OutputFile::write(path("missing/clip.json"), "new", true),
             QStringLiteral("Can't save file '%1'").arg(path("missing/clip.json")));
    QVERIFY(entries(m_dir->path()).isEmpty());
}

void OutputFileTest::aFailedReplacementLeavesTheOldFileAndNoTemporaryFile()
{
    // A folder in the way cannot be renamed over: the write fails only at the very end, once
    // every byte is in the temporary file.
    QVERIFY(QDir(m_dir->path()).mkpath("clip.json"));
    QVERIFY(TestSupport::writeFile(path("clip.json/inside"), "kept"));
    QCOMPARE(OutputFile::write(path("clip.json"), "new", true),
             QStringLiteral("Can't save file '%1'").arg(path("clip.json")));
    QVERIFY(QFileInfo(path("clip.json")).isDir());
    QCOMPARE(TestSupport::readFile(path("clip.json/inside")), QByteArray("kept"));
    QCOMPARE(entries(m_dir->path()), QStringList{"clip.json"});
}

QTEST_GUILESS_MAIN(OutputFileTest)
#include "OutputFileTest.moc"
