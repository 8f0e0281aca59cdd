#include "FilmSteps.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>

namespace {

// A 16-bit step whose pixel (x, y) holds `value` and every other pixel 0.
cv::Mat stepWith(int x, int y, int value)
{
    cv::Mat counts(12, 20, CV_16UC1, cv::Scalar(0));
    counts.at<quint16>(y, x) = static_cast<quint16>(value);
    return counts;
}

cv::Mat zeroSum()
{
    return cv::Mat(12, 20, CV_32SC1, cv::Scalar(0));
}

} // namespace

class FilmStepsTest : public QObject {
    Q_OBJECT

private slots:
    void init() { QVERIFY(m_dir.isValid()); }

    void stepsComeBackInTheirOrderWithTheirCountsAndTimes()
    {
        FilmSteps::Writer writer;
        QCOMPARE(writer.open(m_dir.filePath("a.steps")), QString());
        writer.add({0, 0.96}, stepWith(1, 2, 3));
        writer.add({4, 4.5}, stepWith(5, 6, 65535));
        QCOMPARE(writer.finish(), QString());
        FilmSteps::Reader reader(m_dir.filePath("a.steps"));
        cv::Mat sum = zeroSum();
        QVERIFY(reader.next());
        QCOMPARE(reader.step().step, 0);
        QCOMPARE(reader.step().lastPairTime, 0.96);
        QVERIFY(reader.addTo(sum, 1));
        QVERIFY(reader.next());
        QCOMPARE(reader.step().step, 4);
        QCOMPARE(reader.step().lastPairTime, 4.5);
        QVERIFY(reader.addTo(sum, 1));
        QVERIFY(!reader.next());
        QCOMPARE(reader.error(), QString());
        QCOMPARE(sum.at<qint32>(2, 1), 3);
        QCOMPARE(sum.at<qint32>(6, 5), 65535);
        QCOMPARE(cv::countNonZero(sum), 2);
    }

    void subtractingAStepTakesItsCountsOutAgain()
    {
        FilmSteps::Writer writer;
        QCOMPARE(writer.open(m_dir.filePath("b.steps")), QString());
        writer.add({2, 2.5}, stepWith(3, 3, 7));
        QCOMPARE(writer.finish(), QString());
        cv::Mat sum = zeroSum();
        sum.at<qint32>(3, 3) = 10;
        FilmSteps::Reader reader(m_dir.filePath("b.steps"));
        QVERIFY(reader.next());
        QVERIFY(reader.addTo(sum, -1));
        QCOMPARE(sum.at<qint32>(3, 3), 3);
    }

    void aTemporaryFileIsHiddenBesideTheFilmAndGoesWithTheWriter()
    {
        QString path;
        {
            FilmSteps::Writer writer;
            QCOMPARE(writer.openTemporary(m_dir.path(), QStringLiteral("clip.timelapse.mp4")), QString());
            writer.add({0, 0.5}, stepWith(0, 0, 1));
            QCOMPARE(writer.finish(), QString());
            path = writer.path();
            QVERIFY(QFileInfo(path).fileName().startsWith(QLatin1String(".clip.timelapse.mp4.")));
            QCOMPARE(QFileInfo(path).absolutePath(), QFileInfo(m_dir.path()).absoluteFilePath());
            QVERIFY(QFile::exists(path));
        }
        QVERIFY(!QFile::exists(path));
    }

    void aFolderThatCannotTakeTheStepsIsAnError()
    {
        FilmSteps::Writer writer;
        const QString error = writer.openTemporary(m_dir.filePath("missing/folder"), QStringLiteral("x.mp4"));
        QVERIFY(error.contains("missing/folder"));
        writer.add({0, 0.5}, stepWith(0, 0, 1));
        QCOMPARE(writer.finish(), error);
    }

    void aCutRecordIsAnErrorNotASilentEnd()
    {
        FilmSteps::Writer writer;
        QCOMPARE(writer.open(m_dir.filePath("cut.steps")), QString());
        writer.add({0, 0.5}, stepWith(1, 1, 1));
        QCOMPARE(writer.finish(), QString());
        QFile file(m_dir.filePath("cut.steps"));
        QVERIFY(file.resize(file.size() - 3));
        FilmSteps::Reader reader(m_dir.filePath("cut.steps"));
        QVERIFY(!reader.next());
        QVERIFY(!reader.error().isEmpty());
    }

    void aSumOfAnotherSizeIsRefused()
    {
        FilmSteps::Writer writer;
        QCOMPARE(writer.open(m_dir.filePath("c.steps")), QString());
        writer.add({0, 0.5}, stepWith(1, 1, 1));
        QCOMPARE(writer.finish(), QString());
        FilmSteps::Reader reader(m_dir.filePath("c.steps"));
        QVERIFY(reader.next());
        cv::Mat other(5, 5, CV_32SC1, cv::Scalar(0));
        QVERIFY(!reader.addTo(other, 1));
        QVERIFY(!reader.error().isEmpty());
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(FilmStepsTest)
#include "FilmStepsTest.moc"
