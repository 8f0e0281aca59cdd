#include "ManifestInput.h"

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

    void unusableManifestsSayWhyInOneLine_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("reason");
        QTest::newRow("newer version") << QJsonDocument(manifest(2, "done")).toJson() << "format version 2";
        QTest::newRow("failed analysis") << QJsonDocument(manifest(1, "failed")).toJson() << "did not finish";
        QTest::newRow("not json") << QByteArray("{ nope") << "not JSON";
        QTest::newRow("other json") << QByteArray("{\"a\": 1}") << "not a manifest";
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
