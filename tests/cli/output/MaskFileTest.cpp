#include "MaskFile.h"
#include "TestSupport.h"

#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>

// The --mask picture: read at its own size, refused from its header when that declares a
// picture too large to be a mask.
namespace {

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

} // namespace

class MaskFileTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
    }

    void lightPartsAreAnalysedAndDarkPartsIgnored()
    {
        QImage picture(4, 2, QImage::Format_Grayscale8);
        picture.fill(0);
        picture.setPixel(1, 0, qRgb(128, 128, 128));
        picture.setPixel(3, 1, qRgb(127, 127, 127));
        const QString path = m_dir.filePath("small.png");
        QVERIFY(picture.save(path));
        QString error;
        const cv::Mat mask = MaskFile::load(path, &error);
        QCOMPARE(error, QString());
        QCOMPARE(mask.cols, 4);
        QCOMPARE(mask.rows, 2);
        QCOMPARE(int(mask.at<uchar>(0, 1)), 255);
        QCOMPARE(int(mask.at<uchar>(1, 3)), 0);
        QCOMPARE(cv::countNonZero(mask), 1);
    }

    void aMaskOfTheLargestSideIsRead()
    {
        QImage picture(MaskFile::kLargestSide, 2, QImage::Format_Grayscale8);
        picture.fill(255);
        const QString path = m_dir.filePath("widest.png");
        QVERIFY(picture.save(path));
        QString error;
        const cv::Mat mask = MaskFile::load(path, &error);
        QCOMPARE(error, QString());
        QCOMPARE(mask.cols, 16384);
    }

    void aMaskDeclaringMoreThanTheLargestSideIsRefused_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::newRow("one pixel too wide") << 16385 << 2;
        QTest::newRow("one pixel too high") << 2 << 16385;
    }

    void aMaskDeclaringMoreThanTheLargestSideIsRefused()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        const QString path = m_dir.filePath("large.png");
        QVERIFY(writeFile(path, TestSupport::blackGreyPng(width, height, 8)));
        QString error;
        QVERIFY(MaskFile::load(path, &error).empty());
        QVERIFY2(error.contains(QStringLiteral("%1x%2").arg(width).arg(height)) && error.contains("16384")
                     && error.contains(path),
                 qPrintable(error));
    }

    // 40000 x 40000 pixels in 1.5 MB: decoded, they would take 1.6 GB before any check.
    void aHugeMaskIsRefusedFromItsHeaderWithoutDecodingIt()
    {
        const QString path = m_dir.filePath("huge.png");
        QVERIFY(writeFile(path, TestSupport::blackGreyPng(40000, 40000, 8)));
        QVERIFY(QFileInfo(path).size() < 4 * 1024 * 1024);
        const long before = TestSupport::peakResidentKilobytes();
        QString error;
        QVERIFY(MaskFile::load(path, &error).empty());
        const long grownKb = TestSupport::peakResidentKilobytes() - before;
        QVERIFY2(error.contains("40000x40000"), qPrintable(error));
        QVERIFY2(grownKb < 64 * 1024, qPrintable(QStringLiteral("peak grew by %1 kB").arg(grownKb)));
    }
};

QTEST_GUILESS_MAIN(MaskFileTest)
#include "MaskFileTest.moc"
