#include "ClipMaking.h"
#include "ReferenceMotion.h"
#include "ToolRunning.h"

#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonObject>
#include <QtTest>

#include <opencv2/core.hpp>

#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

// --steady-light and --scene-change, held to the plain reference of the rule: each pair's
// lower median difference taken out, scene changes skipped.
namespace {

using ToolRunning::readAll;
using ToolRunning::readJson;
using ToolRunning::readEvents;

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr double kFps = 25.0;

// A textured scene with a square walking across it and a little noise; `light(i)` is added to
// every pixel of frame i. Between 68 and 190 before the light, so that a change of up to 65
// either way saturates no pixel.
std::vector<cv::Mat> walkingSquare(int frames, const std::function<int(int)>& light)
{
    std::mt19937 random(11);
    std::uniform_int_distribution<int> noise(-2, 2);
    std::vector<cv::Mat> out;
    for (int i = 0; i < frames; ++i) {
        cv::Mat frame(kHeight, kWidth, CV_8UC1);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                frame.at<uchar>(y, x) = cv::saturate_cast<uchar>(70 + (x * 3 + y * 5) % 29 + noise(random));
        frame(cv::Rect((i * 2) % (kWidth - 10), 18, 10, 10)).setTo(cv::Scalar(190));
        frame += cv::Scalar(light(i));
        out.push_back(frame);
    }
    return out;
}

// From frame `at` on, the left `columns` columns change, their top half brighter and their
// bottom half darker by 80: taking out the median leaves that part moving.
std::vector<cv::Mat> partChangedAt(int frames, int at, int columns)
{
    std::vector<cv::Mat> out = walkingSquare(frames, [](int) { return 0; });
    for (size_t i = static_cast<size_t>(at); i < out.size(); ++i) {
        out[i](cv::Rect(0, 0, columns, kHeight / 2)) += cv::Scalar(80);
        out[i](cv::Rect(0, kHeight / 2, columns, kHeight - kHeight / 2)) -= cv::Scalar(80);
    }
    return out;
}

struct Row {
    int pair = 0;
    double time = 0.0;
    long long moving = 0;
    long long newEvents = 0;
    int sceneChange = -1;
};

// The rows of an activity table with the scene_change column; empty when the header differs.
std::vector<Row> readActivity(const QString& path)
{
    const QList<QByteArray> lines = readAll(path).split('\n');
    std::vector<Row> rows;
    if (lines.isEmpty() || lines.front() != "pair,time_s,moving_pixels,new_events,scene_change")
        return rows;
    for (int i = 1; i < lines.size(); ++i) {
        if (lines[i].isEmpty())
            continue;
        const QList<QByteArray> fields = lines[i].split(',');
        if (fields.size() != 5)
            return {};
        rows.push_back({fields[0].toInt(), fields[1].toDouble(), fields[2].toLongLong(), fields[3].toLongLong(),
                        fields[4].toInt()});
    }
    return rows;
}

Reference::Analysis referenceOf(const std::vector<cv::Mat>& frames, bool blur, double share,
                                const cv::Mat& mask = {})
{
    Reference::Analysis reference(kWidth, kHeight, blur, mask);
    reference.setSteadyLight(share);
    for (const cv::Mat& frame : frames)
        reference.addFrame(frame);
    return reference;
}

// The table and the events image against the reference, pair by pair; names the first
// difference.
bool matchesReference(const std::vector<Row>& rows, const cv::Mat& events, const Reference::Analysis& reference)
{
    const auto& pairs = reference.activity();
    if (rows.size() != pairs.size()) {
        qWarning("%zu rows, %zu pairs", rows.size(), pairs.size());
        return false;
    }
    for (size_t i = 0; i < rows.size(); ++i) {
        const double time = (static_cast<double>(i) + 1.0) / kFps;
        const bool same = rows[i].pair == static_cast<int>(i) && std::abs(rows[i].time - time) < 1e-6
                          && rows[i].moving == pairs[i].moving && rows[i].newEvents == pairs[i].newEvents
                          && rows[i].sceneChange == (pairs[i].sceneChange ? 1 : 0);
        if (!same) {
            qWarning("row %zu: %lld %lld %d; expected %lld %lld %d", i, rows[i].moving, rows[i].newEvents,
                     rows[i].sceneChange, pairs[i].moving, pairs[i].newEvents, pairs[i].sceneChange ? 1 : 0);
            return false;
        }
    }
    return events.size() == reference.exactCounts().size() && cv::countNonZero(events != reference.exactCounts()) == 0;
}

int sceneChangesOf(const Reference::Analysis& reference)
{
    int count = 0;
    for (const auto& pair : reference.activity())
        count += pair.sceneChange ? 1 : 0;
    return count;
}

} // namespace

class TremoraMapSteadyLightTest : public QObject, private ToolRunning::Folders {
    Q_OBJECT

private:
    std::vector<cv::Mat> m_step;
    std::vector<cv::Mat> m_steady;
    std::vector<cv::Mat> m_ramp;
    std::vector<cv::Mat> m_flash;
    std::vector<cv::Mat> m_sixty;
    std::vector<cv::Mat> m_forty;

    // Runs the tool with `options` on `name` and compares its files with the reference.
    void checkAgainstReference(const QString& name, const std::vector<cv::Mat>& frames, const QStringList& options,
                               bool blur, double share, const cv::Mat& mask = {})
    {
        QVERIFY(renew());
        const ToolRunning::Result result = tool(QStringList{"--data"} + options + QStringList{clip(name + ".mkv")});
        QVERIFY2(result.exitCode == 0, result.err.constData());
        const Reference::Analysis reference = referenceOf(frames, blur, share, mask);
        QVERIFY(matchesReference(readActivity(out(name + ".activity.csv")), readEvents(out(name + ".events.png")),
                                 reference));
        const QJsonObject manifest = readJson(out(name + ".json"));
        QCOMPARE(manifest["scene_changes"].toObject()["count"].toInt(), sceneChangesOf(reference));
        QCOMPARE(manifest["pairs_analysed"].toInt(), static_cast<int>(frames.size()) - 1);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(clipsReady());
        m_step = walkingSquare(170, [](int i) { return i >= 80 ? 40 : 0; });
        m_steady = walkingSquare(170, [](int) { return 0; });
        m_ramp = walkingSquare(170, [](int i) { return i / 4; });
        m_flash = walkingSquare(170, [](int i) { return i == 90 || i == 91 ? 50 : 0; });
        m_sixty = partChangedAt(170, 90, kWidth * 6 / 10);
        m_forty = partChangedAt(170, 90, kWidth * 4 / 10);
        QVERIFY(ClipMaking::writeGray(clip("step.mkv"), m_step));
        QVERIFY(ClipMaking::writeGray(clip("steady.mkv"), m_steady));
        QVERIFY(ClipMaking::writeGray(clip("ramp.mkv"), m_ramp));
        QVERIFY(ClipMaking::writeGray(clip("flash.mkv"), m_flash));
        QVERIFY(ClipMaking::writeGray(clip("sixty.mkv"), m_sixty));
        QVERIFY(ClipMaking::writeGray(clip("forty.mkv"), m_forty));
    }

    void init()
    {
        QVERIFY(renew());
    }

    void brightnessStepMatchesTheReference()
    {
        checkAgainstReference("step", m_step, {"--steady-light"}, true, 0.5);
    }

    void slowExposureRampMatchesTheReference()
    {
        checkAgainstReference("ramp", m_ramp, {"--steady-light"}, true, 0.5);
    }

    void twoFrameFlashMatchesTheReference()
    {
        checkAgainstReference("flash", m_flash, {"--steady-light"}, true, 0.5);
    }

    void changeOfSixtyPercentIsASceneChange()
    {
        checkAgainstReference("sixty", m_sixty, {"--steady-light", "--no-blur"}, false, 0.5);
        const std::vector<Row> rows = readActivity(out("sixty.activity.csv"));
        QCOMPARE(rows[89].sceneChange, 1);
        QCOMPARE(rows[89].newEvents, 0LL);
        QVERIFY(rows[89].moving > kWidth * kHeight / 2);
        const QJsonObject changes = readJson(out("sixty.json"))["scene_changes"].toObject();
        QCOMPARE(changes["count"].toInt(), 1);
        QCOMPARE(changes["times_s"].toArray(), (QJsonArray{90 / kFps}));
    }

    void changeOfFortyPercentIsNoSceneChange()
    {
        checkAgainstReference("forty", m_forty, {"--steady-light", "--no-blur"}, false, 0.5);
        QCOMPARE(readActivity(out("forty.activity.csv"))[89].sceneChange, 0);
    }

    void sceneChangeShareIsTakenFromTheOptionWhichImpliesSteadyLight()
    {
        checkAgainstReference("forty", m_forty, {"--scene-change", "0.3", "--no-blur"}, false, 0.3);
        QCOMPARE(readActivity(out("forty.activity.csv"))[89].sceneChange, 1);
        const QJsonObject parameters = readJson(out("forty.json"))["parameters"].toObject();
        QCOMPARE(parameters["steady_light"].toObject()["scene_change_share"].toDouble(), 0.3);
    }

    void maskedRunMatchesTheReference()
    {
        cv::Mat mask(kHeight, kWidth, CV_8UC1, cv::Scalar(255));
        mask(cv::Rect(0, 0, kWidth / 3, kHeight)).setTo(cv::Scalar(0));
        QVERIFY(ToolRunning::saveMask(clip("mask.png"), mask));
        checkAgainstReference("step", m_step, {"--steady-light", "--mask", clip("mask.png")}, true, 0.5, mask);
    }

    void unsmoothedRunMatchesTheReference()
    {
        checkAgainstReference("step", m_step, {"--steady-light", "--no-blur"}, false, 0.5);
    }

    void stepClipGivesTheEventsOfTheClipWithoutTheStep()
    {
        // The step of 40 moves every pixel from [68, 190] to [108, 230]: none saturates, so
        // taking the median out restores each difference exactly.
        QCOMPARE(tool({"--data", "--steady-light", clip("step.mkv")}).exitCode, 0);
        QCOMPARE(tool({"--data", clip("steady.mkv")}).exitCode, 0);
        const cv::Mat stepped = readEvents(out("step.events.png"));
        const cv::Mat steady = readEvents(out("steady.events.png"));
        QVERIFY(cv::countNonZero(steady) > 0);
        QCOMPARE(cv::countNonZero(stepped != steady), 0);
        // Without the option the step is an event everywhere.
        QVERIFY(renew());
        QCOMPARE(tool({"--data", clip("step.mkv")}).exitCode, 0);
        QVERIFY(cv::countNonZero(readEvents(out("step.events.png")) != steady) > kWidth * kHeight / 2);
    }

    void withoutLightChangeTheFilesAreThoseWithoutTheOption()
    {
        QCOMPARE(tool({"--data", "--counts", clip("steady.mkv")}).exitCode, 0);
        const QByteArray map = readAll(out("steady.png"));
        const QByteArray events = readAll(out("steady.events.png"));
        const QByteArray background = readAll(out("steady.background.png"));
        const QByteArray counts = readAll(out("steady.counts.png"));
        QVERIFY(renew());
        QCOMPARE(tool({"--data", "--counts", "--steady-light", clip("steady.mkv")}).exitCode, 0);
        QCOMPARE(readAll(out("steady.png")), map);
        QCOMPARE(readAll(out("steady.events.png")), events);
        QCOMPARE(readAll(out("steady.background.png")), background);
        QCOMPARE(readAll(out("steady.counts.png")), counts);
    }

    void mapsWithoutDataAreTheMapsWithData_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::newRow("the window's count") << QStringList{};
        QTest::newRow("a scale, from the exact count") << QStringList{"--scale", "2"};
    }

    void mapsWithoutDataAreTheMapsWithData()
    {
        // The map alone is counted by a lighter loop; it must draw the same map.
        QFETCH(QStringList, options);
        QCOMPARE(tool(QStringList{"--data", "--steady-light"} + options + QStringList{clip("sixty.mkv")}).exitCode, 0);
        const QByteArray withData = readAll(out("sixty.png"));
        QVERIFY(renew());
        QCOMPARE(tool(QStringList{"--steady-light"} + options + QStringList{clip("sixty.mkv")}).exitCode, 0);
        QCOMPARE(readAll(out("sixty.png")), withData);
        QVERIFY(renew());
        QCOMPARE(tool(QStringList{"--data"} + options + QStringList{clip("sixty.mkv")}).exitCode, 0);
        QVERIFY(readAll(out("sixty.png")) != withData);
    }

    void withoutTheOptionTheTableKeepsItsFourColumns()
    {
        QCOMPARE(tool({"--data", clip("step.mkv")}).exitCode, 0);
        QVERIFY(readAll(out("step.activity.csv")).startsWith("pair,time_s,moving_pixels,new_events\n"));
        const QJsonObject manifest = readJson(out("step.json"));
        QVERIFY(!manifest.contains("scene_changes"));
        QVERIFY(!manifest["parameters"].toObject().contains("steady_light"));
    }

    void manifestsOfASteadyLightRunFollowTheirSchema()
    {
        QCOMPARE(tool({"--data", "--steady-light", "--no-blur", clip("sixty.mkv")}).exitCode, 0);
        QCOMPARE(ToolRunning::schemaComplaint(QStringLiteral(TREMORA_MANIFEST_SCHEMA), out("sixty.json")), QString());
    }

    void combiningSumsTheInputsSceneChanges()
    {
        QCOMPARE(tool({"--data", "--scene-change", "0.3", "--no-blur", clip("sixty.mkv"), clip("forty.mkv")}).exitCode,
                 0);
        const int sixty = readJson(out("sixty.json"))["scene_changes"].toObject()["count"].toInt();
        const int forty = readJson(out("forty.json"))["scene_changes"].toObject()["count"].toInt();
        QVERIFY(sixty > 0 && forty > 0);
        QCOMPARE(tool({"--data", "--combine", "both", out("sixty.json"), out("forty.json")}).exitCode, 0);
        const QJsonObject combined = readJson(out("both.json"));
        QCOMPARE(combined["scene_changes"].toObject()["count"].toInt(), sixty + forty);
        QCOMPARE(ToolRunning::schemaComplaint(QStringLiteral(TREMORA_COMBINED_SCHEMA), out("both.json")), QString());
        const QList<QByteArray> lines = readAll(out("both.activity.csv")).split('\n');
        QCOMPARE(lines.front(), QByteArray("file,pair,time_s,moving_pixels,new_events,scene_change"));
        int marked = 0;
        for (const QByteArray& line : lines)
            marked += line.endsWith(",1") ? 1 : 0;
        QCOMPARE(marked, sixty + forty);
    }

    void manifestsCountedWithAndWithoutSteadyLightAreNotCombined()
    {
        QCOMPARE(tool({"--data", "--steady-light", clip("step.mkv")}).exitCode, 0);
        QCOMPARE(tool({"--data", clip("steady.mkv")}).exitCode, 0);
        const ToolRunning::Result result = tool({"--data", "--combine", "mixed", out("step.json"), out("steady.json")});
        QCOMPARE(result.exitCode, 1);
        QVERIFY2(result.err.contains("steady.json") && result.err.contains("steady_light"), result.err.constData());
        const QJsonObject combined = readJson(out("mixed.json"));
        const QJsonArray inputs = combined["inputs"].toArray();
        QCOMPARE(inputs.size(), 2);
        QCOMPARE(inputs[0].toObject()["status"].toString(), QStringLiteral("combined"));
        QCOMPARE(inputs[1].toObject()["status"].toString(), QStringLiteral("left out"));
        // The combination is the first input's alone.
        QCOMPARE(cv::countNonZero(readEvents(out("mixed.events.png")) != readEvents(out("step.events.png"))), 0);
    }

    void badSceneChangeShareIsAUsageError_data()
    {
        QTest::addColumn<QString>("share");
        QTest::newRow("zero") << "0";
        QTest::newRow("negative") << "-0.2";
        QTest::newRow("above one") << "1.01";
        QTest::newRow("not a number") << "nan";
        QTest::newRow("a word") << "half";
    }

    void badSceneChangeShareIsAUsageError()
    {
        QFETCH(QString, share);
        const ToolRunning::Result result = tool({"--scene-change", share, clip("step.mkv")});
        QCOMPARE(result.exitCode, 2);
        // One line that says what is wrong, and the usual pointer to --help.
        QVERIFY(result.err.split('\n').front().contains("--scene-change"));
        QVERIFY(result.err.contains("--help"));
        QVERIFY(!QFile::exists(out("step.png")));
    }

    void shareOfOneIsAccepted()
    {
        QCOMPARE(tool({"--scene-change", "1", clip("step.mkv")}).exitCode, 0);
        QVERIFY(QFile::exists(out("step.png")));
    }
};

QTEST_GUILESS_MAIN(TremoraMapSteadyLightTest)
#include "TremoraMapSteadyLightTest.moc"
