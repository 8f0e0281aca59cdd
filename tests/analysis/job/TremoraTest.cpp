#include "ClipMaking.h"
#include "PipeFeeder.h"
#include "MotionMap.h"
#include "MpegFrame.h"
#include "MpegReader.h"
#include "ReferenceMotion.h"
#include "TestSupport.h"
#include "ThreadPriority.h"
#include "Tremora.h"
#include "Utils.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QIcon>
#include <QListWidget>
#include <QPixmap>
#include <QTemporaryDir>
#include <QThread>
#include <QThreadPool>
#include <QtTest>

#include <opencv2/core.hpp>
#include <opencv2/video/background_segm.hpp>

#include <memory>
#include <thread>

using namespace ClipMaking;

namespace {

const QSize kIconSize(1280, 720);

// The display texts a row shows, in the order it shows them.
class TextRecorder {
public:
    explicit TextRecorder(QListWidget& list)
    {
        QObject::connect(list.model(), &QAbstractItemModel::dataChanged,
                         [this, &list](const QModelIndex& index, const QModelIndex&, const QVector<int>& roles) {
                             if (roles.isEmpty() || roles.contains(Qt::DisplayRole))
                                 texts << list.item(index.row())->text();
                         });
    }
    QStringList texts;
};

QImage thumbnailOf(const Tremora& job, QIcon::Mode mode = QIcon::Normal)
{
    return job.icon().pixmap(job.m_iconSize, mode, QIcon::Off).toImage();
}

bool allBlack(const QImage& image)
{
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if ((image.pixel(x, y) & 0xffffff) != 0)
                return false;
    return true;
}

// Counts that the rules give for the first `count` decoded frames of `path`.
cv::Mat referenceCountsOfFile(const QString& path, int count, bool blur)
{
    MpegReader reader;
    if (!reader.open(path.toUtf8().constData()))
        return {};
    std::unique_ptr<Reference::Analysis> reference;
    for (int i = 0; i < count; ++i) {
        std::unique_ptr<MpegFrame> frame(reader.read(true));
        if (!frame)
            break;
        if (!reference)
            reference = std::make_unique<Reference::Analysis>(frame->width(), frame->height(), blur);
        reference->addFrame(cv::Mat(frame->height(), frame->width(), CV_8UC1, frame->data(), static_cast<size_t>(frame->step())).clone());
    }
    return reference ? reference->counts() : cv::Mat();
}

bool equal(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

// The background that the library's model at its defaults learns from the second to the
// 101st frame of `path`.
cv::Mat referenceBackgroundOfFile(const QString& path)
{
    MpegReader reader;
    if (!reader.open(path.toUtf8().constData()))
        return {};
    cv::Ptr<cv::BackgroundSubtractorMOG2> model = cv::createBackgroundSubtractorMOG2();
    cv::Mat mask, background;
    std::unique_ptr<MpegFrame> frame(reader.read(true));
    for (int i = 1; i <= 100; ++i) {
        frame.reset(reader.read(true));
        if (!frame)
            break;
        cv::Mat rgb(frame->height(), frame->width(), CV_8UC3);
        frame->rgb24(rgb.data, static_cast<int>(rgb.step), rgb.cols, rgb.rows);
        model->apply(rgb, mask, -1.0);
    }
    model->getBackgroundImage(background);
    return background;
}

// Two jobs as rows of a list, on a pool of two threads that never deletes them. The pool
// goes first, waiting for the passes, then the list with the jobs.
struct TwoJobs {
    TwoJobs(Tremora* first, Tremora* second)
        : a(first)
        , b(second)
    {
        list.addItem(a);
        list.addItem(b);
        pool.setMaxThreadCount(2);
        a->setAutoDelete(false);
        b->setAutoDelete(false);
    }

    QListWidget list;
    QThreadPool pool;
    Tremora* a;
    Tremora* b;
};

QByteArray bytesOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Threads of this process whose nice value is above `nice`, i.e. that run at a lower
// priority.
int threadsBelowPriority(int nice)
{
    int count = 0;
    for (const QString& task : QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile stat(QStringLiteral("/proc/self/task/%1/stat").arg(task));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        // The fields after the command's closing parenthesis start with the state (field 3);
        // the nice value is field 19.
        const QByteArray line = stat.readAll();
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 16 && fields[16].toInt() > nice)
            ++count;
    }
    return count;
}

// True once the row's thumbnail shows more than black: a map with a learnt background,
// which the pass renders after its first pair at the earliest.
bool showsABackground(const Tremora& job)
{
    QCoreApplication::processEvents();
    return !allBlack(thumbnailOf(job));
}

// Runs `job` on `pool` and waits for the pass and for the row changes it queued.
bool runOnPool(Tremora& job, QThreadPool& pool)
{
    job.setAutoDelete(false);
    pool.start(&job);
    pool.waitForDone();
    QCoreApplication::processEvents();
    return job.m_state.load() >= Tremora::Done;
}

} // namespace

class TremoraTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString grayClip(const QString& name, const std::vector<cv::Mat>& frames)
    {
        const QString path = m_dir.filePath(name);
        if (!QFile::exists(path) && !writeGray(path, frames))
            return {};
        return path;
    }

    QString fileOfSize(const QString& name, int size)
    {
        const QString path = m_dir.filePath(name);
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.write(QByteArray(size, 'x'));
        return path;
    }

    QString longClip()
    {
        const QString path = m_dir.filePath("long.mp4");
        if (!QFile::exists(path))
            TestSupport::runFfmpeg({"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25:duration=120", "-c:v", "libx264",
                                    "-preset", "ultrafast", "-pix_fmt", "yuv420p", path});
        return path;
    }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void freshJobShowsWaitingWithABlackThumbnail()
    {
        const QString path = m_dir.filePath("clip.mp4");
        Tremora job(path, kIconSize, 300);
        QCOMPARE(job.text(), QStringLiteral("clip.mp4 (waiting...)"));
        QCOMPARE(job.toolTip(), QFileInfo(path).absoluteFilePath());
        QVERIFY(job.getResult().isNull());
        QCOMPARE(job.m_state.load(), int(Tremora::Waiting));
        QCOMPARE(job.m_cancel.load(), 0);
        QCOMPARE(job.m_position, qint64(0));
        QVERIFY(job.m_blur);
        QCOMPARE(job.m_updateInterval, 300);
        QCOMPARE(job.m_iconSize, kIconSize);
        QVERIFY(job.m_motionCount.empty());
        QVERIFY(job.m_background.empty());
        const QImage thumbnail = thumbnailOf(job);
        QCOMPARE(thumbnail.size(), kIconSize);
        QVERIFY(allBlack(thumbnail));
        QVERIFY(job.icon().availableSizes(QIcon::Normal, QIcon::Off).contains(kIconSize));
        QVERIFY(job.icon().availableSizes(QIcon::Selected, QIcon::Off).contains(kIconSize));
    }

    void pathIsKeptAsGiven()
    {
        Tremora job(QStringLiteral("relative/dir/video.avi"), QSize(64, 36), 7);
        QCOMPARE(job.m_path, QStringLiteral("relative/dir/video.avi"));
        QCOMPARE(job.m_fileInfo.fileName(), QStringLiteral("video.avi"));
        QCOMPARE(job.toolTip(), QFileInfo(QStringLiteral("relative/dir/video.avi")).absoluteFilePath());
        QCOMPARE(job.m_updateInterval, 7);
    }

    void jobIsAnObjectARunnableAndAListItem()
    {
        Tremora job(QStringLiteral("a.mp4"), kIconSize, 300);
        QCOMPARE(job.metaObject()->className(), "Tremora");
        QCOMPARE(job.qt_metacast("Tremora"), static_cast<void*>(&job));
        QCOMPARE(job.qt_metacast("QRunnable"), static_cast<void*>(static_cast<QRunnable*>(&job)));
        QCOMPARE(job.qt_metacast("QListWidgetItem"), static_cast<void*>(static_cast<QListWidgetItem*>(&job)));
        QListWidget list;
        list.addItem(&job);
        QCOMPARE(static_cast<Tremora*>(list.item(0)), &job);
        list.takeItem(0);
    }

    void eachStateShowsItsText_data()
    {
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("text");
        QTest::newRow("waiting") << int(Tremora::Waiting) << "waiting...";
        QTest::newRow("done") << int(Tremora::Done) << "done";
        QTest::newRow("failed") << int(Tremora::Failed) << "failed";
        QTest::newRow("canceled") << int(Tremora::Canceled) << "canceled";
        QTest::newRow("seven") << 7 << "unknown";
        QTest::newRow("negative") << -1 << "unknown";
    }

    void eachStateShowsItsText()
    {
        QFETCH(int, state);
        QFETCH(QString, text);
        Tremora job(m_dir.filePath("clip.mp4"), kIconSize, 300);
        job.update(static_cast<Tremora::State>(state));
        QCOMPARE(job.text(), QStringLiteral("clip.mp4 (%1)").arg(text));
        QCOMPARE(job.m_state.load(), state);
    }

    void progressIsTruncatedToWholePercent()
    {
        Tremora job(fileOfSize("thousand.bin", 1000), kIconSize, 300);
        job.m_position = 999;
        job.update(Tremora::Processing);
        QCOMPARE(job.text(), QStringLiteral("thousand.bin (processing... 99%)"));
        job.m_position = 420;
        job.update(Tremora::Processing);
        QCOMPARE(job.text(), QStringLiteral("thousand.bin (processing... 42%)"));
    }

    void emptyOrMissingFileShowsZeroPercent()
    {
        Tremora empty(fileOfSize("empty.bin", 0), kIconSize, 300);
        empty.m_position = 500;
        empty.update(Tremora::Processing);
        QCOMPARE(empty.text(), QStringLiteral("empty.bin (processing... 0%)"));
        Tremora missing(m_dir.filePath("gone.bin"), kIconSize, 300);
        missing.m_position = 500;
        missing.update(Tremora::Processing);
        QCOMPARE(missing.text(), QStringLiteral("gone.bin (processing... 0%)"));
    }

    void settingCancelAloneDoesNotChangeTheRow()
    {
        Tremora job(m_dir.filePath("clip.mp4"), kIconSize, 300);
        job.m_cancel = -1;
        QCoreApplication::processEvents();
        QCOMPARE(job.text(), QStringLiteral("clip.mp4 (waiting...)"));
        QCOMPARE(job.m_state.load(), int(Tremora::Waiting));
    }

    void unopenableFileEndsFailedWithoutReadingAFrame()
    {
        Tremora job(m_dir.filePath("missing.mkv"), kIconSize, 300);
        const int framesBefore = MpegReader::m_processedFrameCount.load();
        const int pairsBefore = Tremora::globalCounter.m_count.load();
        job.run();
        QCOMPARE(job.m_state.load(), int(Tremora::Failed));
        QCOMPARE(job.text(), QStringLiteral("missing.mkv (failed)"));
        QCOMPARE(MpegReader::m_processedFrameCount.load(), framesBefore);
        QCOMPARE(Tremora::globalCounter.m_count.load(), pairsBefore);
        QVERIFY(job.getResult().isNull());
        QVERIFY(allBlack(thumbnailOf(job)));
    }

    void canceledBeforeStartNeverOpensAndEndsCanceled()
    {
        // A missing file: opening it would have ended the job as failed.
        QListWidget list;
        auto* job = new Tremora(m_dir.filePath("missing.mkv"), kIconSize, 300);
        list.addItem(job);
        TextRecorder recorder(list);
        job->m_cancel = -1;
        QThreadPool pool;
        QVERIFY(runOnPool(*job, pool));
        QCOMPARE(job->m_state.load(), int(Tremora::Canceled));
        const QStringList expected = {"missing.mkv (processing... 0%)", "missing.mkv (canceled)"};
        QCOMPARE(recorder.texts, expected);
        QVERIFY(job->getResult().isNull());
    }

    void singleFrameVideoEndsDoneWithABlackMap()
    {
        Tremora job(grayClip("single.mkv", speckledNoise(cv::Size(64, 48), 1, 4)), kIconSize, 300);
        job.run();
        QCOMPARE(job.m_state.load(), int(Tremora::Done));
        QCOMPARE(job.text(), QStringLiteral("single.mkv (done)"));
        QCOMPARE(cv::countNonZero(job.m_background.reshape(1)), 0);
        const QImage map = job.getResult();
        QCOMPARE(map.size(), QSize(64, 48));
        QVERIFY(allBlack(map));
    }

    void twoFrameVideoRaisesTheCounterOnce()
    {
        Tremora job(grayClip("two.mkv", speckledNoise(cv::Size(64, 48), 2, 4)), kIconSize, 300);
        const int before = Tremora::globalCounter.m_count.load();
        job.run();
        QCOMPARE(job.m_state.load(), int(Tremora::Done));
        QCOMPARE(Tremora::globalCounter.m_count.load() - before, 1);
    }

    void finishedMapHasTheColoursOfTheRules()
    {
        // Without blur, on a grey 50 scene: square P flashes in frames 40 and 95 (motion in
        // pairs 39-40 and 94-95, 54 apart: 2 events), square Q in frames 40 and 80 (39
        // apart: 1 event), square R ten times, 52 frames apart (10 events). A one-frame
        // flash leaves the learnt background at 50 everywhere, so the grey is 150 / 6 = 25.
        const cv::Point p(8, 8), q(40, 8), r(8, 32);
        const auto frames = squares(cv::Size(64, 48), 500, [&](int i) {
            std::vector<cv::Point> at;
            if (i == 40 || i == 95)
                at.push_back(p);
            if (i == 40 || i == 80)
                at.push_back(q);
            if (i >= 20 && (i - 20) % 52 == 0 && i <= 20 + 9 * 52)
                at.push_back(r);
            return at;
        });
        Tremora job(grayClip("flash.mkv", frames), kIconSize, 300);
        job.m_blur = false;
        job.run();
        QCOMPARE(job.m_state.load(), int(Tremora::Done));
        const QImage map = job.getResult();
        QCOMPARE(map.format(), QImage::Format_RGB888);
        QCOMPARE(map.size(), QSize(64, 48));
        QCOMPARE(map.pixel(0, 0), qRgb(25, 25, 25));
        // 2 events: index 60, green 4 * 28 = 112, blue 255, plus the grey.
        QCOMPARE(map.pixel(p.x + 3, p.y + 3), qRgb(25, 137, 255));
        // 1 event: index 30, blue 247 + 25 clamped to 255.
        QCOMPARE(map.pixel(q.x + 3, q.y + 3), qRgb(25, 25, 255));
        // 10 events: index 255, red 127.
        QCOMPARE(map.pixel(r.x + 3, r.y + 3), qRgb(152, 25, 25));
        QCOMPARE(map.pixel(r.x + 8, r.y + 3), qRgb(25, 25, 25));
    }

    void aSceneGivesTheSameCountsInEveryYuvFormat()
    {
        // Without blur (threshold 40), on a grey 100: square S flashes to 145 in frame 10,
        // 39 apart from the background in video range but 45 apart once stretched to full
        // range; square C flashes to 220, motion either way.
        const cv::Point s(8, 8), c(40, 8);
        std::vector<cv::Mat> frames;
        for (int i = 0; i < 40; ++i) {
            cv::Mat frame(cv::Size(64, 48), CV_8UC1, cv::Scalar(100));
            if (i == 10) {
                frame(square(s)).setTo(cv::Scalar(145));
                frame(square(c)).setTo(cv::Scalar(220));
            }
            frames.push_back(frame);
        }
        const QString planar = m_dir.filePath("range-yuv420p.mkv");
        QVERIFY(writeGray(planar, frames, {"-pix_fmt", "yuv420p", "-c:v", "ffv1"}));
        QStringList clips = {planar};
        for (const QString format : {"yuv422p", "yuyv422", "nv12"}) {
            clips << m_dir.filePath(QStringLiteral("range-%1.nut").arg(format));
            QVERIFY(TestSupport::runFfmpeg({"-i", planar, "-pix_fmt", format, "-c:v", "rawvideo", clips.last()}));
        }
        cv::Mat expected(cv::Size(64, 48), CV_8UC1, cv::Scalar(0));
        expected(square(c)).setTo(cv::Scalar(1));
        for (const QString& clip : clips) {
            Tremora job(clip, kIconSize, 300);
            job.m_blur = false;
            job.run();
            QCOMPARE(job.m_state.load(), int(Tremora::Done));
            QVERIFY2(equal(job.m_motionCount, expected), qPrintable(clip));
        }
    }

    void thumbnailIsTheMapCentredInBothIconModes()
    {
        // A thumbnail smaller than the map, so that the whole map is scaled into it.
        const QSize iconSize(32, 32);
        const auto frames = squares(cv::Size(64, 48), 30, [](int i) { return std::vector<cv::Point>{cv::Point(i, 10)}; });
        Tremora job(grayClip("sweep.mkv", frames), iconSize, 300);
        job.run();
        QImage expected(iconSize, QImage::Format_RGB888);
        expected.fill(0);
        Utils::drawImageCentered(job.getResult(), expected, 0);
        const QImage shown = thumbnailOf(job);
        QCOMPARE(shown.convertToFormat(QImage::Format_RGB888), expected);
        // Letterboxed: black above and below the map, the map's grey in the middle.
        QCOMPARE(shown.pixel(16, 1) & 0xffffff, 0u);
        QVERIFY((shown.pixel(2, 16) & 0xffffff) != 0u);
        QCOMPARE(job.icon().pixmap(iconSize, QIcon::Selected, QIcon::Off).cacheKey(),
                 job.icon().pixmap(iconSize, QIcon::Normal, QIcon::Off).cacheKey());
    }

    void rowChangesFromThePoolArriveOnTheGuiThreadInOrder()
    {
        const std::vector<cv::Mat> frames = speckledNoise(cv::Size(64, 48), 130, 6);
        QListWidget list;
        auto* job = new Tremora(grayClip("noise130.mkv", frames), kIconSize, 40);
        list.addItem(job);
        TextRecorder recorder(list);
        QThreadPool pool;
        job->setAutoDelete(false);
        pool.start(job);
        pool.waitForDone();
        // Nothing reached the row from the pool thread itself.
        QCOMPARE(job->text(), QStringLiteral("noise130.mkv (waiting...)"));
        QVERIFY(recorder.texts.isEmpty());
        QCOMPARE(job->m_state.load(), int(Tremora::Done));
        QCoreApplication::processEvents();
        QVERIFY(recorder.texts.size() >= 2);
        QCOMPARE(recorder.texts.first(), QStringLiteral("noise130.mkv (processing... 0%)"));
        QCOMPARE(recorder.texts.last(), QStringLiteral("noise130.mkv (done)"));
        int lastPercent = 0;
        for (const QString& text : recorder.texts.mid(0, recorder.texts.size() - 1)) {
            const QRegularExpressionMatch match = QRegularExpression("processing\\.\\.\\. (\\d+)%").match(text);
            QVERIFY2(match.hasMatch(), qPrintable(text));
            QVERIFY(match.captured(1).toInt() >= lastPercent);
            lastPercent = match.captured(1).toInt();
        }
        QVERIFY(equal(job->m_motionCount, referenceCountsOfFile(job->m_path, 130, true)));
    }

    void jobDeletedWithRowChangesPendingDoesNotCrash()
    {
        auto* job = new Tremora(grayClip("noise130.mkv", speckledNoise(cv::Size(64, 48), 130, 6)), kIconSize, 10);
        QThreadPool pool;
        job->setAutoDelete(false);
        pool.start(job);
        pool.waitForDone();
        QCOMPARE(job->m_state.load(), int(Tremora::Done));
        delete job;
        QCoreApplication::processEvents();
    }

    void cancelDuringTheVideoStopsEarlyAndShowsCanceled()
    {
        const QString path = longClip();
        QVERIFY(QFile::exists(path));
        QListWidget list;
        auto* job = new Tremora(path, kIconSize, 300);
        list.addItem(job);
        QThreadPool pool;
        job->setAutoDelete(false);
        const int before = Tremora::globalCounter.m_count.load();
        pool.start(job);
        QElapsedTimer waited;
        waited.start();
        while (Tremora::globalCounter.m_count.load() - before < 3 && waited.elapsed() < 30000)
            std::this_thread::yield();
        job->m_cancel = -1;
        pool.waitForDone();
        QCoreApplication::processEvents();
        const int pairs = Tremora::globalCounter.m_count.load() - before;
        QCOMPARE(job->m_state.load(), int(Tremora::Canceled));
        QCOMPARE(job->text(), QStringLiteral("long.mp4 (canceled)"));
        QVERIFY2(pairs >= 3 && pairs < 2999, qPrintable(QString::number(pairs)));
        // The map keeps what was counted up to the cancel.
        QVERIFY(equal(job->m_motionCount, referenceCountsOfFile(path, pairs + 1, true)));
        QCOMPARE(job->getResult(), MotionMap::render(job->m_motionCount, job->m_background));
    }

    void twoJobsRunAtOnceOnAPoolOfTwo()
    {
        // The first job reads its video from a pipe that holds back all but its first
        // frames, so it stays within its learning pairs, its model alive, until released.
        // The second job must meanwhile learn and count its whole video.
        const QString first = grayClip("first.mkv", speckledNoise(cv::Size(160, 120), 150, 41));
        const QString second = grayClip("second.mkv", speckledNoise(cv::Size(96, 64), 180, 42));
        const QByteArray firstBytes = bytesOf(first);
        QVERIFY(!firstBytes.isEmpty());
        const QString pipe = m_dir.filePath("first.pipe");
        TwoJobs jobs(new Tremora(pipe, kIconSize, 25), new Tremora(second, kIconSize, 25));
        Tremora* a = jobs.a;
        Tremora* b = jobs.b;
        QThreadPool& pool = jobs.pool;
        // Declared after the pool: released and done with before the pool waits for the jobs.
        PipeFeeder feeder(pipe, firstBytes, firstBytes.size() / 4);
        QVERIFY(feeder.isOpen());
        const int before = Tremora::globalCounter.m_count.load();
        pool.start(a);
        // Two pairs: the first job's model has learnt a frame (the background shown after
        // pair 1 waited for it).
        QTRY_VERIFY_WITH_TIMEOUT(Tremora::globalCounter.m_count.load() - before >= 2, 60000);
        pool.start(b);
        QTRY_VERIFY_WITH_TIMEOUT(b->m_state.load() >= Tremora::Done, 60000);
        QCOMPARE(a->m_state.load(), int(Tremora::Processing));
        const int firstPairsSoFar = Tremora::globalCounter.m_count.load() - before - 179;
        QVERIFY2(firstPairsSoFar >= 2 && firstPairsSoFar < 100, qPrintable(QString::number(firstPairsSoFar)));
        feeder.release();
        QTRY_VERIFY_WITH_TIMEOUT(a->m_state.load() >= Tremora::Done, 60000);
        pool.waitForDone();
        QCoreApplication::processEvents();
        QCOMPARE(a->text(), QStringLiteral("first.pipe (done)"));
        QCOMPARE(b->text(), QStringLiteral("second.mkv (done)"));
        QVERIFY(equal(a->m_motionCount, referenceCountsOfFile(first, 150, true)));
        QVERIFY(equal(b->m_motionCount, referenceCountsOfFile(second, 180, true)));
        QVERIFY(equal(a->m_background, referenceBackgroundOfFile(first)));
        QVERIFY(equal(b->m_background, referenceBackgroundOfFile(second)));
        QCOMPARE(a->getResult().size(), QSize(160, 120));
        QCOMPARE(b->getResult().size(), QSize(96, 64));
    }

    void aLoneJobDecodesOnEveryCoreAndTheNextBesideItOnOne()
    {
        QCOMPARE(Tremora::decoderThreadsFor(1, 2), 2);
        QCOMPARE(Tremora::decoderThreadsFor(1, 8), 8);
        QCOMPARE(Tremora::decoderThreadsFor(2, 2), 1);
        QCOMPARE(Tremora::decoderThreadsFor(2, 8), 1);
        QCOMPARE(Tremora::decoderThreadsFor(1, 1), 1);
        QCOMPARE(Tremora::decoderThreadsFor(1, 0), 1);
    }

    void aLoneJobRunsItsWorkBelowItsDecoderAndAJobBesideItDoesNot()
    {
        // A pass on several decoder threads runs its own work at a lower priority than the
        // decoder; on one, all of it stays on the pool thread. Both jobs read from pipes that
        // hold back the rest of their videos, so their threads stay while they are counted.
        if (QThread::idealThreadCount() < 2)
            QSKIP("On one core a lone job decodes on one thread too");
        const QString firstClip = grayClip("lone.mkv", speckledNoise(cv::Size(160, 120), 150, 43));
        const QString secondClip = grayClip("beside.mkv", speckledNoise(cv::Size(96, 64), 150, 44));
        const QByteArray firstBytes = bytesOf(firstClip);
        const QByteArray secondBytes = bytesOf(secondClip);
        QVERIFY(!firstBytes.isEmpty() && !secondBytes.isEmpty());
        const int nice = ThreadPriority::niceOfCallingThread();
        // Thumbnails smaller than the maps, which are then scaled into them whole.
        TwoJobs jobs(new Tremora(m_dir.filePath("lone.pipe"), QSize(32, 32), 300),
                     new Tremora(m_dir.filePath("beside.pipe"), QSize(32, 32), 300));
        Tremora* a = jobs.a;
        Tremora* b = jobs.b;
        QThreadPool& pool = jobs.pool;
        PipeFeeder firstFeeder(a->m_path, firstBytes, firstBytes.size() / 4);
        PipeFeeder secondFeeder(b->m_path, secondBytes, secondBytes.size() / 4);
        QVERIFY(firstFeeder.isOpen() && secondFeeder.isOpen());
        const int lowered = threadsBelowPriority(nice);
        pool.start(a);
        QTRY_VERIFY_WITH_TIMEOUT(showsABackground(*a), 60000);
        const int loweredByTheLoneJob = threadsBelowPriority(nice) - lowered;
        QVERIFY2(loweredByTheLoneJob >= 1, qPrintable(QString::number(loweredByTheLoneJob)));
        pool.start(b);
        QTRY_VERIFY_WITH_TIMEOUT(showsABackground(*b), 60000);
        QCOMPARE(threadsBelowPriority(nice) - lowered, loweredByTheLoneJob);
        firstFeeder.release();
        secondFeeder.release();
        QTRY_VERIFY_WITH_TIMEOUT(a->m_state.load() >= Tremora::Done && b->m_state.load() >= Tremora::Done, 60000);
        pool.waitForDone();
        QCOMPARE(a->m_state.load(), int(Tremora::Done));
        QCOMPARE(b->m_state.load(), int(Tremora::Done));
        QVERIFY(equal(a->m_motionCount, referenceCountsOfFile(firstClip, 150, true)));
        QVERIFY(equal(b->m_motionCount, referenceCountsOfFile(secondClip, 150, true)));
    }

    void thousandWaitingJobsShareOneThumbnail()
    {
        QListWidget list;
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 1000; ++i)
            list.addItem(new Tremora(m_dir.filePath(QStringLiteral("queued-%1.mp4").arg(i)), kIconSize, 300));
        qInfo("1000 jobs created in %lld ms", timer.elapsed());
        const auto* first = static_cast<Tremora*>(list.item(0));
        const qint64 iconKey = first->icon().cacheKey();
        const qint64 pixmapKey = first->icon().pixmap(kIconSize).cacheKey();
        for (int i = 1; i < list.count(); ++i) {
            const auto* job = static_cast<Tremora*>(list.item(i));
            QCOMPARE(job->icon().cacheKey(), iconKey);
            QCOMPARE(job->icon().pixmap(kIconSize).cacheKey(), pixmapKey);
        }
    }
};

QTEST_MAIN(TremoraTest)
#include "TremoraTest.moc"
