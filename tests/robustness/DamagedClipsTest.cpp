// Clips of many containers and codecs, cut short, with bytes flipped and with their header
// zeroed: the pass and the job end each one Done or Failed, within the time bound, and agree.

#include "BadInputRuns.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>

using namespace BadInputRuns;

class DamagedClipsTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QStringList m_seeds;
    std::vector<Input> m_damaged;
    int m_done = 0;
    int m_failed = 0;

    static void addRows(const std::vector<Input>& inputs)
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<Expected>("expected");
        for (const Input& input : inputs)
            QTest::newRow(input.name.constData()) << input.path << input.expected;
    }

    void runBothRoutes()
    {
        QFETCH(QString, path);
        QFETCH(Expected, expected);
        const PassRun pass = runPass(path);
        const JobRun job = runJob(path);
        const QString problem = disagreement(pass, job, QFileInfo(path).fileName(), expected);
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
        ++(pass.outcome == MotionPassOutcome::Finished ? m_done : m_failed);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QString error;
        m_seeds = makeSeedClips(m_dir.filePath("seeds"), &error);
        QVERIFY2(!m_seeds.isEmpty(), qPrintable(error));
        QVERIFY(QDir().mkpath(m_dir.filePath("damaged")));
        for (const QString& seed : m_seeds) {
            const std::vector<Input> copies = damagedCopies(seed, m_dir.filePath("damaged"));
            // Ten cuts, ten copies with flipped bytes and one with its header zeroed.
            QCOMPARE(int(copies.size()), 21);
            m_damaged.insert(m_damaged.end(), copies.begin(), copies.end());
        }
    }

    // The undamaged clips decode, so the damaged ones start from something that works.
    void everySeedClipEndsDoneWithMotionCounted_data()
    {
        std::vector<Input> seeds;
        for (const QString& seed : m_seeds)
            seeds.push_back({QFileInfo(seed).fileName().toUtf8(), seed, Expected::Done});
        addRows(seeds);
    }

    void everySeedClipEndsDoneWithMotionCounted()
    {
        QFETCH(QString, path);
        const PassRun pass = runPass(path);
        QVERIFY(pass.ended);
        QCOMPARE(pass.outcome, MotionPassOutcome::Finished);
        QVERIFY2(pass.pairs >= 4, qPrintable(QString::number(pass.pairs)));
        QVERIFY2(cv::countNonZero(pass.counts) > 0, qPrintable(QString::number(pass.pairs)));
        runBothRoutes();
    }

    void damagedClipEndsDoneOrFailedAlikeInPassAndJob_data() { addRows(m_damaged); }

    void damagedClipEndsDoneOrFailedAlikeInPassAndJob() { runBothRoutes(); }

    void cleanupTestCase() { qInfo("%d inputs ended done, %d failed", m_done, m_failed); }
};

QTEST_MAIN(DamagedClipsTest)
#include "DamagedClipsTest.moc"
