#include "Manifest.h"
#include "MapToolOptions.h"

#include <QJsonObject>
#include <QtTest>

// What the manifest says about the analysis, and how two analyses are told apart.
namespace {

// The parameters of a manifest as --data records them with the defaults.
QJsonObject defaults()
{
    return {
        {"blur", true},
        {"threshold", 20},
        {"new_event_gap_pairs", 51},
        {"learning_pairs", 100},
        {"mask", QJsonValue()},
        {"window", QJsonObject{{"start_s", QJsonValue()}, {"end_s", QJsonValue()}}},
    };
}

} // namespace

class ManifestTest : public QObject {
    Q_OBJECT

private slots:
    void jsonNamesAreManifests()
    {
        QVERIFY(Manifest::namesManifest("maps/a.json"));
        QVERIFY(Manifest::namesManifest("A.JSON"));
        QVERIFY(!Manifest::namesManifest("a.json.mkv"));
        QVERIFY(!Manifest::namesManifest("a.mkv"));
    }

    void theRunsParametersAreWhatItsManifestsRecord()
    {
        MapToolOptions options;
        options.blur = false;
        options.maskPath = QStringLiteral("/masks/clock.png");
        options.hasStart = true;
        options.start = 90.5;
        const QJsonObject parameters = Manifest::parameters(options, 0.0);
        QCOMPARE(parameters["blur"].toBool(true), false);
        QCOMPARE(parameters["mask"].toString(), QStringLiteral("/masks/clock.png"));
        QCOMPARE(parameters["window"].toObject()["start_s"].toDouble(), 90.5);
        QVERIFY(parameters["window"].toObject()["end_s"].isNull());
        QVERIFY(!parameters.contains("scale"));
    }

    void equalParametersDifferInNothing()
    {
        QCOMPARE(Manifest::parameterDifferences(defaults(), defaults()), QStringList());
    }

    void eachDifferingParameterIsNamedWithBothValues()
    {
        QJsonObject other = defaults();
        other["blur"] = false;
        other["threshold"] = 30;
        QCOMPARE(Manifest::parameterDifferences(other, defaults()),
                 (QStringList{"blur false, not true", "threshold 30, not 20"}));
    }

    void aWindowIsComparedPartByPart()
    {
        QJsonObject other = defaults();
        other["window"] = QJsonObject{{"start_s", 60.25}, {"end_s", QJsonValue()}};
        QCOMPARE(Manifest::parameterDifferences(other, defaults()), QStringList{"window.start_s 60.25, not none"});
    }

    void aMaskIsComparedByItsPath()
    {
        QJsonObject first = defaults();
        first["mask"] = "/masks/a.png";
        QJsonObject other = defaults();
        other["mask"] = "/masks/b.png";
        QCOMPARE(Manifest::parameterDifferences(other, first),
                 QStringList{"mask \"/masks/b.png\", not \"/masks/a.png\""});
        QCOMPARE(Manifest::parameterDifferences(first, first), QStringList());
    }

    // An option added after a manifest was written is compared too: missing on one side
    // it counts as none, so a value on the other is a difference and a null is not.
    void aParameterOnlyOneSideRecordsCountsAsNone()
    {
        QJsonObject newer = defaults();
        newer["stabilise"] = true;
        QCOMPARE(Manifest::parameterDifferences(newer, defaults()), QStringList{"stabilise true, not none"});
        QCOMPARE(Manifest::parameterDifferences(defaults(), newer), QStringList{"stabilise none, not true"});
        newer["stabilise"] = QJsonValue();
        QCOMPARE(Manifest::parameterDifferences(newer, defaults()), QStringList());
    }

    void theScaleOnlyDrawsAndIsNotCompared()
    {
        QJsonObject scaled = defaults();
        scaled["scale"] = QJsonObject{{"events_at_top", 20}, {"auto", false}};
        QCOMPARE(Manifest::parameterDifferences(scaled, defaults()), QStringList());
    }
};

QTEST_GUILESS_MAIN(ManifestTest)
#include "ManifestTest.moc"
