#include "ImageFile.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// A picture with detail in every channel, so that each format's encoder has work to do.
QImage sample()
{
    QImage image(37, 23, QImage::Format_RGB888);
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x)
            image.setPixel(x, y, qRgb(x * 7, y * 11, (x * y) % 256));
    }
    return image;
}

QStringList entries(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System, QDir::Name);
}

} // namespace

class ImageFileTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void writesTheBytesQImageSaveWrites_data();
    void writesTheBytesQImageSaveWrites();
    void replacesAnExistingFile();
    void unknownSuffixFailsAndLeavesTheFileAsItWas();
    void nameWithoutSuffixFails();
    void missingFolderFailsAndCreatesNothing();
    void nullImageFailsAndLeavesTheFileAsItWas();
    void failedReplacementLeavesNoTemporaryFile();

private:
    QString path(const QString& name) const { return QDir(m_dir->path()).filePath(name); }
    std::unique_ptr<QTemporaryDir> m_dir;
};

void ImageFileTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void ImageFileTest::writesTheBytesQImageSaveWrites_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("png") << "map.png";
    QTest::newRow("jpg") << "map.jpg";
    QTest::newRow("jpeg") << "map.jpeg";
    QTest::newRow("bmp") << "map.bmp";
    QTest::newRow("suffix in capitals") << "map.JPG";
    QTest::newRow("two dots") << "clip.part1.png";
}

void ImageFileTest::writesTheBytesQImageSaveWrites()
{
    QFETCH(QString, name);
    QVERIFY(QDir(m_dir->path()).mkpath("reference"));
    const QString reference = path("reference/" + name);
    QVERIFY(sample().save(reference));
    QVERIFY(Utils::saveImage(sample(), path(name)));
    const QByteArray written = TestSupport::readFile(path(name));
    QVERIFY(!written.isEmpty());
    QCOMPARE(written, TestSupport::readFile(reference));
    QCOMPARE(entries(m_dir->path()), (QStringList{name, "reference"}));
}

void ImageFileTest::replacesAnExistingFile()
{
    QVERIFY(TestSupport::writeFile(path("map.png"), "an older file"));
    QVERIFY(Utils::saveImage(sample(), path("map.png")));
    QImage loaded(path("map.png"));
    QCOMPARE(loaded.convertToFormat(QImage::Format_RGB888), sample());
    QCOMPARE(entries(m_dir->path()), QStringList{"map.png"});
}

void ImageFileTest::unknownSuffixFailsAndLeavesTheFileAsItWas()
{
    QVERIFY(TestSupport::writeFile(path("map.xyz"), "precious"));
    QVERIFY(!Utils::saveImage(sample(), path("map.xyz")));
    QCOMPARE(TestSupport::readFile(path("map.xyz")), QByteArray("precious"));
    QCOMPARE(entries(m_dir->path()), QStringList{"map.xyz"});
}

void ImageFileTest::nameWithoutSuffixFails()
{
    QVERIFY(!Utils::saveImage(sample(), path("map")));
    QVERIFY(!Utils::saveImage(sample(), path("map.")));
    QVERIFY(entries(m_dir->path()).isEmpty());
}

void ImageFileTest::missingFolderFailsAndCreatesNothing()
{
    QVERIFY(!Utils::saveImage(sample(), path("missing/map.png")));
    QVERIFY(entries(m_dir->path()).isEmpty());
}

void ImageFileTest::nullImageFailsAndLeavesTheFileAsItWas()
{
    QVERIFY(TestSupport::writeFile(path("map.png"), "precious"));
    QVERIFY(!Utils::saveImage(QImage(), path("map.png")));
    QVERIFY(!Utils::saveImage(QImage(), path("new.png")));
    QCOMPARE(TestSupport::readFile(path("map.png")), QByteArray("precious"));
    QCOMPARE(entries(m_dir->path()), QStringList{"map.png"});
}

void ImageFileTest::failedReplacementLeavesNoTemporaryFile()
{
    // A folder in the file's place: the image is encoded, but cannot take the folder's place.
    QVERIFY(QDir(m_dir->path()).mkpath("map.png/inside"));
    QVERIFY(!Utils::saveImage(sample(), path("map.png")));
    QCOMPARE(entries(m_dir->path()), QStringList{"map.png"});
    QVERIFY(QFileInfo(path("map.png")).isDir());
    QCOMPARE(entries(path("map.png")), QStringList{"inside"});
}

QTEST_GUILESS_MAIN(ImageFileTest)
#include "ImageFileTest.moc"
