#include "CombinedActivity.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// Writes the combined table; the scene changes it counted go to `sceneChanges` when given.
QString writeTable(const QString& path, const std::vector<CombinedActivity::Source>& sources, bool overwrite,
                   std::int64_t* sceneChanges = nullptr)
{
    std::int64_t counted = 0;
    const QString error = CombinedActivity::write(path, sources, overwrite, &counted);
    if (sceneChanges)
        *sceneChanges = counted;
    return error;
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class CombinedActivityTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString path(const QString& name) const { return m_dir.filePath(name); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(writeFile(path("a.csv"), "pair,time_s,moving_pixels,new_events\n0,0.040000,5,2\n1,0.080000,0,0\n"));
        QVERIFY(writeFile(path("b.csv"), "pair,time_s,moving_pixels,new_events\n0,0.500000,7,1\n"));
    }

    void creationTimesPutEveryRowOnOneTimeLine()
    {
        const std::vector<CombinedActivity::Source> sources{
            {"/v/a.mkv", path("a.csv"), "2024-05-01T10:00:00.000000Z"},
            {"/v/b.mkv", path("b.csv"), "2024-05-01T10:01:30.250000Z"},
        };
        QCOMPARE(writeTable(path("one.csv"), sources, false), QString());
        QCOMPARE(readAll(path("one.csv")), QByteArray("file,pair,time_s,moving_pixels,new_events\n"
                                                      "\"/v/a.mkv\",0,0.040000,5,2\n"
                                                      "\"/v/a.mkv\",1,0.080000,0,0\n"
                                                      "\"/v/b.mkv\",0,90.750000,7,1\n"));
    }

    void theEarliestStartIsZeroWhateverTheOrder()
    {
        const auto offsets = CombinedActivity::startOffsets({{"b", "", "2024-05-01T11:00:00Z"},
                                                             {"a", "", "2024-05-01T10:00:00Z"}});
        QVERIFY(offsets.has_value());
        QCOMPARE(offsets->at(0), 3600.0);
        QCOMPARE(offsets->at(1), 0.0);
    }

    void oneInputWithoutCreationTimeKeepsEveryFilesOwnTimes()
    {
        const std::vector<CombinedActivity::Source> sources{
            {"/v/a.mkv", path("a.csv"), "2024-05-01T10:00:00Z"},
            {"/v/b,\"x\".mkv", path("b.csv"), ""},
        };
        QVERIFY(!CombinedActivity::startOffsets(sources).has_value());
        QCOMPARE(writeTable(path("own.csv"), sources, false), QString());
        QCOMPARE(readAll(path("own.csv")), QByteArray("file,pair,time_s,moving_pixels,new_events\n"
                                                      "\"/v/a.mkv\",0,0.040000,5,2\n"
                                                      "\"/v/a.mkv\",1,0.080000,0,0\n"
                                                      "\"/v/b,\"\"x\"\".mkv\",0,0.500000,7,1\n"));
    }

    void anExistingTableIsNotReplacedWithoutOverwrite()
    {
        QVERIFY(writeFile(path("kept.csv"), "earlier"));
        const QString error = writeTable(path("kept.csv"), {{"a", path("a.csv"), ""}}, false);
        QVERIFY(error.contains(QStringLiteral("exists")));
        QCOMPARE(readAll(path("kept.csv")), QByteArray("earlier"));
        QCOMPARE(writeTable(path("kept.csv"), {{"a", path("a.csv"), ""}}, true), QString());
        QVERIFY(readAll(path("kept.csv")).startsWith("file,"));
    }

    void tablesInSteadyLightKeepTheirSceneChangeColumnAndCountThem()
    {
        QVERIFY(writeFile(path("c.csv"), "pair,time_s,moving_pixels,new_events,scene_change\n"
                                         "0,0.040000,5,2,0\n1,0.080000,900,0,1\n"));
        QVERIFY(writeFile(path("d.csv"), "pair,time_s,moving_pixels,new_events,scene_change\n0,0.500000,950,0,1\n"));
        std::int64_t sceneChanges = -7;
        QCOMPARE(writeTable(path("steady.csv"), {{"c", path("c.csv"), "2024-05-01T10:00:00Z"},
                                                  {"d", path("d.csv"), "2024-05-01T10:00:01Z"}},
                            false, &sceneChanges),
                 QString());
        QCOMPARE(readAll(path("steady.csv")), QByteArray("file,pair,time_s,moving_pixels,new_events,scene_change\n"
                                                         "\"c\",0,0.040000,5,2,0\n"
                                                         "\"c\",1,0.080000,900,0,1\n"
                                                         "\"d\",0,1.500000,950,0,1\n"));
        QCOMPARE(sceneChanges, std::int64_t{2});
    }

    void tablesWithoutSceneChangesCountNone()
    {
        std::int64_t sceneChanges = 0;
        QCOMPARE(writeTable(path("plain.csv"), {{"a", path("a.csv"), ""}}, false, &sceneChanges), QString());
        QCOMPARE(sceneChanges, std::int64_t{-1});
    }

    void tablesOfMixedRulesAreNotJoined()
    {
        QVERIFY(writeFile(path("e.csv"), "pair,time_s,moving_pixels,new_events,scene_change\n0,0.040000,5,2,0\n"));
        const QString error = writeTable(path("mixed.csv"), {{"a", path("a.csv"), ""}, {"e", path("e.csv"), ""}}, false);
        QVERIFY(error.contains(QStringLiteral("e.csv")));
        QVERIFY(!QFile::exists(path("mixed.csv")));
    }

    void aMissingTableLeavesNoHalfWrittenFile()
    {
        const QString error = writeTable(
            path("half.csv"), {{"a", path("a.csv"), ""}, {"b", path("none.csv"), ""}}, false);
        QVERIFY(error.contains(QStringLiteral("none.csv")));
        QVERIFY(!QFile::exists(path("half.csv")));
    }
};

QTEST_GUILESS_MAIN(CombinedActivityTest)
#include "CombinedActivityTest.moc"
