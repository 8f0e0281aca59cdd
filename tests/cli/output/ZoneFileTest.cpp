#include "ZoneFile.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

// The --zones file: its zones as written, and every way it can be refused, each with one
// line that names the file and, where there is one, the zone.
namespace {

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QByteArray zoneNamed(const QByteArray& name)
{
    return "{\"name\": \"" + name + "\", \"polygon\": [[0, 0], [4, 0], [0, 4]]}";
}

QByteArray fileOfZones(const QList<QByteArray>& zones)
{
    QByteArray list;
    for (const QByteArray& zone : zones)
        list += (list.isEmpty() ? "" : ", ") + zone;
    return "{\"zones\": [" + list + "]}";
}

} // namespace

class ZoneFileTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    // Loads `bytes` as a zone file; the error, which names the file, or "loaded" when it loads.
    QString errorOf(const QByteArray& bytes)
    {
        const QString path = m_dir.filePath("zones.json");
        if (!writeFile(path, bytes))
            return QStringLiteral("not written");
        QString error;
        const std::vector<Zone> zones = ZoneFile::load(path, &error);
        if (!zones.empty())
            return error.isEmpty() ? QStringLiteral("loaded") : QStringLiteral("loaded with an error");
        if (error.isEmpty() || error.contains('\n') || !error.contains(path))
            return QStringLiteral("error not one line naming the file: ") + error;
        return error;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
    }

    void zonesAreReadInTheirOrderWithTheirPoints()
    {
        const QString path = m_dir.filePath("good.json");
        QVERIFY(writeFile(path, "{\"zones\": [{\"name\": \"door\", \"polygon\": [[1, 2], [30, -4], [5, 6e1]]},"
                                " {\"name\": \"Kasse \xc3\xa4 <&>\", \"polygon\": [[0, 0], [9, 0], [9, 9], [0, 9]]}],"
                                " \"comment\": \"other keys are left alone\"}"));
        QString error;
        const std::vector<Zone> zones = ZoneFile::load(path, &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(zones.size(), size_t(2));
        QCOMPARE(zones[0].name, QStringLiteral("door"));
        QCOMPARE(zones[0].polygon, (std::vector<cv::Point>{{1, 2}, {30, -4}, {5, 60}}));
        QCOMPARE(zones[1].name, QString::fromUtf8("Kasse \xc3\xa4 <&>"));
        QCOMPARE(zones[1].polygon.size(), size_t(4));
        const QJsonArray written = ZoneFile::toJson(zones);
        QCOMPARE(written[1].toObject()["name"].toString(), zones[1].name);
        QCOMPARE(written[0].toObject()["polygon"].toArray()[2].toArray()[1].toInt(), 60);
    }

    void aMissingFileIsRefused()
    {
        QString error;
        QVERIFY(ZoneFile::load(m_dir.filePath("none.json"), &error).empty());
        QVERIFY(error.contains(m_dir.filePath("none.json")));
    }

    void textThatIsNotJsonIsRefused()
    {
        QVERIFY(errorOf("{\"zones\": [").contains("not JSON"));
    }

    void aFileWithoutZonesIsRefused()
    {
        QVERIFY(errorOf("{\"areas\": []}").contains("no \"zones\" list"));
        QVERIFY(errorOf("[1, 2]").contains("no \"zones\" list"));
        QVERIFY(errorOf("{\"zones\": {}}").contains("no \"zones\" list"));
    }

    void anEmptyListOfZonesIsRefused()
    {
        QVERIFY(errorOf("{\"zones\": []}").contains("no \"zones\" list"));
    }

    void aPolygonOfTwoPointsIsRefused()
    {
        const QString error = errorOf(fileOfZones({"{\"name\": \"line\", \"polygon\": [[0, 0], [4, 4]]}"}));
        QVERIFY2(error.contains("'line'") && error.contains("fewer than three points"), qPrintable(error));
    }

    void aZoneWithoutPolygonIsRefused()
    {
        const QString error = errorOf(fileOfZones({"{\"name\": \"door\"}"}));
        QVERIFY2(error.contains("'door'") && error.contains("no polygon"), qPrintable(error));
    }

    void aFractionalCoordinateIsRefused()
    {
        const QString error = errorOf(fileOfZones({"{\"name\": \"door\", \"polygon\": [[0, 0], [4.5, 0], [0, 4]]}"}));
        QVERIFY2(error.contains("'door'") && error.contains("[4.5,0]"), qPrintable(error));
    }

    void aCoordinateGivenAsTextIsRefused()
    {
        const QString error = errorOf(fileOfZones({"{\"name\": \"door\", \"polygon\": [[0, 0], [\"4\", 0], [0, 4]]}"}));
        QVERIFY2(error.contains("'door'") && error.contains("not two integer coordinates"), qPrintable(error));
    }

    void aPointOfThreeCoordinatesIsRefused()
    {
        const QString error = errorOf(fileOfZones({"{\"name\": \"door\", \"polygon\": [[0, 0, 1], [4, 0], [0, 4]]}"}));
        QVERIFY2(error.contains("'door'") && error.contains("not two integer coordinates"), qPrintable(error));
    }

    void aCoordinateFarOutsideAnyPictureIsRefused()
    {
        QVERIFY(errorOf(fileOfZones({"{\"name\": \"far\", \"polygon\": [[0, 0], [1000000, 0], [0, -1000000]]}"}))
                == QStringLiteral("loaded"));
        const QString error = errorOf(fileOfZones({"{\"name\": \"far\", \"polygon\": [[0, 0], [1000001, 0], [0, 4]]}"}));
        QVERIFY2(error.contains("'far'") && error.contains("not two integer coordinates"), qPrintable(error));
    }

    void aZoneWithoutNameIsRefused()
    {
        const QString error = errorOf(fileOfZones({zoneNamed("a"), "{\"polygon\": [[0, 0], [4, 0], [0, 4]]}"}));
        QVERIFY2(error.contains("Zone 2 ") && error.contains("no name"), qPrintable(error));
    }

    void aNameThatIsNotTextIsRefused()
    {
        const QString error = errorOf(fileOfZones({"{\"name\": 7, \"polygon\": [[0, 0], [4, 0], [0, 4]]}"}));
        QVERIFY2(error.contains("Zone 1 ") && error.contains("no name"), qPrintable(error));
    }

    void anEmptyNameIsRefused()
    {
        const QString error = errorOf(fileOfZones({zoneNamed("")}));
        QVERIFY2(error.contains("Zone 1 ") && error.contains("empty name"), qPrintable(error));
    }

    void aNameOf64CharactersIsTakenAndOf65Refused()
    {
        // Characters, not bytes: 64 letters of two bytes each are a name of 64 characters.
        QByteArray longest;
        for (int i = 0; i < 64; ++i)
            longest += "\xc3\xa4";
        QCOMPARE(errorOf(fileOfZones({zoneNamed(longest)})), QStringLiteral("loaded"));
        const QString error = errorOf(fileOfZones({zoneNamed(longest + "x")}));
        QVERIFY2(error.contains("Zone 1 ") && error.contains("longer than 64"), qPrintable(error));
    }

    void aRepeatedNameIsRefused()
    {
        const QString error = errorOf(fileOfZones({zoneNamed("door"), zoneNamed("till"), zoneNamed("door")}));
        QVERIFY2(error.contains("Zone 3 ") && error.contains("repeats the name 'door'"), qPrintable(error));
    }

    void sixtyFourZonesAreTakenAndSixtyFiveRefused()
    {
        QList<QByteArray> zones;
        for (int i = 0; i < 64; ++i)
            zones << zoneNamed("z" + QByteArray::number(i));
        QCOMPARE(errorOf(fileOfZones(zones)), QStringLiteral("loaded"));
        zones << zoneNamed("z64");
        const QString error = errorOf(fileOfZones(zones));
        QVERIFY2(error.contains("65 zones") && error.contains("at most 64"), qPrintable(error));
    }

    void aZoneThatIsNotAnObjectIsRefused()
    {
        const QString error = errorOf(fileOfZones({zoneNamed("a"), "[[0, 0], [4, 0], [0, 4]]"}));
        QVERIFY2(error.contains("Zone 2 ") && error.contains("not an object"), qPrintable(error));
    }
};

QTEST_GUILESS_MAIN(ZoneFileTest)
#include "ZoneFileTest.moc"
