#include "ManifestInput.h"
#include "TestSupport.h"

#include <QCryptographicHash>
#include <QImage>

#include <QBuffer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

namespace {

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// The parts of a manifest that reading its header looks at.
QJsonObject manifest(int version, const QString& status)
{
    return {
        {"format", "tremora-map data"},
        {"format_version", version},
        {"input", QJsonObject{{"path", "/videos/a.mkv"}}},
        {"video", QJsonObject{{"width", 96}, {"height", 64}, {"creation_time", "2024-05-01T10:00:00Z"}}},
        {"outcome", QJsonObject{{"status", status}}},
        {"files",
         QJsonArray{QJsonObject{{"role", "events"}, {"name", "a.events.png"}},
                    QJsonObject{{"role", "background"}, {"name", "a.background.png"}}}},
    };
}

// The record of a file the manifest names: written beside it with its real size and checksum,
// so that only what the file holds can refuse it.
QJsonObject recorded(const QString& folder, const QString& role, const QString& name, const QByteArray& bytes)
{
    if (!writeFile(folder + '/' + name, bytes))
        return {};
    return {
        {"role", role},
        {"name", name},
        {"size_bytes", double(bytes.size())},
        {"sha256", QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex())},
    };
}

QByteArray pngOf(const QImage& image)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

QByteArray countsPng(int width, int height)
{
    QImage counts(width, height, QImage::Format_Grayscale16);
    counts.fill(0);
    reinterpret_cast<quint16*>(counts.scanLine(1))[2] = 7;
    return pngOf(counts);
}

QByteArray backgroundPng(int width, int height)
{
    QImage background(width, height, QImage::Format_RGB888);
    background.fill(qRgb(10, 20, 30));
    return pngOf(background);
}

} // namespace

class ManifestInputTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    ManifestInput::Header headerOf(const QByteArray& bytes)
    {
        const QString path = m_dir.filePath("m.json");
        if (!writeFile(path, bytes))
            return {};
        return ManifestInput::readHeader(path);
    }

    // A finished manifest of a 96 x 64 video naming these counts and background.
    QString manifestWith(const QByteArray& counts, const QByteArray& background)
    {
        QJsonObject written = manifest(1, "done");
        written["files"] = QJsonArray{recorded(m_dir.path(), "events", "a.events.png", counts),
                                      recorded(m_dir.path(), "background", "a.background.png", background)};
        const QString path = m_dir.filePath("m.json");
        return writeFile(path, QJsonDocument(written).toJson()) ? path : QString();
    }

private slots:
    void aFinishedManifestGivesSizeVideoAndFilesBesideIt()
    {
        const ManifestInput::Header header = headerOf(QJsonDocument(manifest(1, "done")).toJson());
        QCOMPARE(header.error, QString());
        QCOMPARE(header.width, 96);
        QCOMPARE(header.height, 64);
        QCOMPARE(header.videoPath, QStringLiteral("/videos/a.mkv"));
        QCOMPARE(header.creationTime, QStringLiteral("2024-05-01T10:00:00Z"));
        QCOMPARE(header.eventsPath, m_dir.filePath("a.events.png"));
        QVERIFY(header.activityPath.isEmpty());
    }

    void theHeaderCarriesTheRecordedParameters()
    {
        QJsonObject withParameters = manifest(1, "done");
        withParameters["parameters"] = QJsonObject{{"blur", false}, {"mask", "/masks/clock.png"}};
        const ManifestInput::Header header = headerOf(QJsonDocument(withParameters).toJson());
        QCOMPARE(header.parameters, (QJsonObject{{"blur", false}, {"mask", "/masks/clock.png"}}));
        QCOMPARE(header.maskPath, QStringLiteral("/masks/clock.png"));
    }

    void picturesOfTheRecordedSizeAreLoaded()
    {
        const QString path = manifestWith(countsPng(96, 64), backgroundPng(96, 64));
        QImage storage;
        cv::Mat events, background;
        QCOMPARE(ManifestInput::load(path, storage, &events, &background), QString());
        QCOMPARE(events.cols, 96);
        QCOMPARE(events.rows, 64);
        QCOMPARE(int(events.at<quint16>(1, 2)), 7);
        QCOMPARE(background.at<cv::Vec3b>(5, 5), cv::Vec3b(10, 20, 30));
    }

    void picturesOfAnotherSizeThanRecordedAreRefused_data()
    {
        QTest::addColumn<QByteArray>("counts");
        QTest::addColumn<QByteArray>("background");
        QTest::addColumn<bool>("withBackground");
        QTest::addColumn<QString>("named");
        QTest::newRow("counts") << countsPng(64, 96) << backgroundPng(96, 64) << true << "a.events.png";
        // The background is checked even where it is not decoded.
        QTest::newRow("background, not decoded") << countsPng(96, 64) << backgroundPng(96, 65) << false
                                                 << "a.background.png";
    }

    void picturesOfAnotherSizeThanRecordedAreRefused()
    {
        QFETCH(QByteArray, counts);
        QFETCH(QByteArray, background);
        QFETCH(bool, withBackground);
        QFETCH(QString, named);
        const QString path = manifestWith(counts, background);
        QImage storage;
        cv::Mat events, backgroundMatrix;
        const QString error = ManifestInput::load(path, storage, &events, withBackground ? &backgroundMatrix : nullptr);
        QVERIFY2(error.contains("96x64") && error.contains(named) && error.contains(path), qPrintable(error));
        QVERIFY(!error.contains(QLatin1Char('\n')));
        QVERIFY(events.empty());
        QVERIFY(storage.isNull());
    }

    // 3 MB that declare 40000 x 40000 16-bit pixels, with the checksum the manifest records:
    // decoded, 3.2 GB before the size could be compared.
    void countsDeclaringAHugePictureAreRefusedFromTheHeaderWithoutDecoding()
    {
        const QByteArray huge = TestSupport::blackGreyPng(40000, 40000, 16);
        QVERIFY(huge.size() > 0 && huge.size() < 4 * 1024 * 1024);
        const QString path = manifestWith(huge, backgroundPng(96, 64));
        const long before = TestSupport::peakResidentKilobytes();
        QImage storage;
        cv::Mat events, background;
        const QString error = ManifestInput::load(path, storage, &events, &background);
        const long grownKb = TestSupport::peakResidentKilobytes() - before;
        QVERIFY2(grownKb < 64 * 1024, qPrintable(QStringLiteral("peak grew by %1 kB").arg(grownKb)));
        QVERIFY2(error.contains("40000x40000") && error.contains("96x64"), qPrintable(error));
        QVERIFY(events.empty());
    }

    void unusableManifestsSayWhyInOneLine_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("reason");
        QTest::newRow("newer version") << QJsonDocument(manifest(2, "done")).toJson() << "format version 2";
        QTest::newRow("failed analysis") << QJsonDocument(manifest(1, "failed")).toJson() << "did not finish";
        QTest::newRow("not json") << QByteArray("{ nope") << "not JSON";
        QTest::newRow("other json") << QByteArray("{\"a\": 1}") << "not a manifest";
        QJsonObject huge = manifest(1, "done");
        huge["video"] = QJsonObject{{"width", 40000}, {"height", 40000}};
        QTest::newRow("size no video has") << QJsonDocument(huge).toJson() << "40000x40000";
        QJsonObject sizeless = manifest(1, "done");
        sizeless["video"] = QJsonObject{};
        QTest::newRow("no size") << QJsonDocument(sizeless).toJson() << "0x0";
        QJsonObject withoutFiles = manifest(1, "done");
        withoutFiles.remove("files");
        QTest::newRow("no files") << QJsonDocument(withoutFiles).toJson() << "no exact counts";
    }

    void unusableManifestsSayWhyInOneLine()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, reason);
        const ManifestInput::Header header = headerOf(bytes);
        QVERIFY2(header.error.contains(reason), qPrintable(header.error));
        QVERIFY(header.error.contains(m_dir.filePath("m.json")));
        QVERIFY(!header.error.contains(QLatin1Char('\n')));
    }

    void aFileNamedOutsideTheManifestsFolderIsNotRead()
    {
        QJsonObject escaping = manifest(1, "done");
        escaping["files"] = QJsonArray{QJsonObject{{"role", "events"}, {"name", "../etc/a.events.png"}},
                                       QJsonObject{{"role", "background"}, {"name", "a.background.png"}}};
        QVERIFY(writeFile(m_dir.filePath("m.json"), QJsonDocument(escaping).toJson()));
        QImage storage;
        cv::Mat events, background;
        const QString error = ManifestInput::load(m_dir.filePath("m.json"), storage, &events, &background);
        QVERIFY2(error.contains(QStringLiteral("missing")), qPrintable(error));
        QVERIFY(events.empty());
    }
};

QTEST_GUILESS_MAIN(ManifestInputTest)
#include "ManifestInputTest.moc"
